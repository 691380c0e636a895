/* The coded crash records: what is read, what is refused, what is written. */
#include "crash_info.h"

#include "unit_support.h"

#include <string.h>

#include <gtest/gtest.h>

typedef std::vector<std::string> lines;

/* A record with a count of 0x01020304 between other bytes. */
static std::string plain_record(void)
{
    std::string record(50, '\0');

    for (size_t i = 0; i < record.size(); i++)
        record[i] = (char)(0x80 + i);
    return record.replace(30, 4, "\x04\x03\x02\x01");
}

/* The drivers' coding, spelt out: byte by byte with the key's eight characters. */
static std::string coded(std::string bytes)
{
    static const char key[] = "Tz!*#4,k";

    for (size_t i = 0; i < bytes.size(); i++)
        bytes[i] = (char)(bytes[i] ^ key[i % 8]);
    return bytes;
}

static std::string bytes_of(const crash_config_record &record)
{
    return std::string(reinterpret_cast<const char *>(&record), sizeof(record));
}

TEST(test_read_crash_config, files)
{
    const std::string file = coded(plain_record());
    /* clang-format off */
    const struct {
        const char *row;
        std::string bytes;
        int result;
        std::string record;
        const char *log; /* with the path in place of @ */
    } rows[] = {
        {"a record", file, 0, plain_record(), NULL},
        {"a record and more", file + "0123456789", 0, plain_record(), NULL},
        {"a byte short", file.substr(0, 49), 3, file.substr(0, 49) + '\0',
         "warn read file @ failed 49 3."},
        {"empty", "", 3, std::string(50, '\0'), "warn read file @ failed 0 3."},
    };
    /* clang-format on */
    temporary_folder folder;
    log_capture log;

    for (const auto &row : rows) {
        SCOPED_TRACE(row.row);
        crash_config_record record = {};
        const std::wstring path = folder.write(L"crash_config.cfg", row.bytes);
        EXPECT_EQ(read_crash_config(&record, path.c_str()), row.result);
        EXPECT_EQ(bytes_of(record), row.record);
        if (row.result == 0) {
            EXPECT_EQ(record.count, 0x01020304u);
        }
        lines expected;
        if (row.log != NULL) {
            expected.push_back(row.log);
            expected[0].replace(expected[0].find('@'), 1, to_utf8(path));
        }
        EXPECT_EQ(log.take(), expected);
        /* The file is closed: it can be replaced. */
        EXPECT_TRUE(DeleteFileW(path.c_str()));
    }
}

TEST(test_read_crash_config, no_file)
{
    temporary_folder folder;
    log_capture log;
    crash_config_record record = {};
    const std::wstring path = folder.file(L"none.cfg");

    EXPECT_EQ(read_crash_config(&record, path.c_str()), 2);
    EXPECT_EQ(log.take(), lines{"warn open file " + to_utf8(path) + " failed 2."});
    EXPECT_EQ(read_crash_config(NULL, path.c_str()), 1);
    EXPECT_EQ(read_crash_config(&record, NULL), 1);
    EXPECT_EQ(read_crash_config(&record, L""), 2);
    EXPECT_EQ(bytes_of(record), std::string(50, '\0'));
}

TEST(test_write_crash_config, files)
{
    temporary_folder folder;
    log_capture log;
    crash_config_record record;
    const std::wstring path = folder.write(L"crash_config.cfg", std::string(80, 'x'));

    memcpy(&record, plain_record().data(), sizeof(record));
    record.count = 7;
    const std::string plain = bytes_of(record);
    EXPECT_EQ(write_crash_config(&record, path.c_str()), 0);
    EXPECT_EQ(read_whole_file(path), coded(plain));
    EXPECT_EQ(bytes_of(record), coded(plain));
    EXPECT_EQ(read_crash_config(&record, path.c_str()), 0);
    EXPECT_EQ(bytes_of(record), plain);
    EXPECT_TRUE(log.take().empty());
}

TEST(test_write_crash_config, refused)
{
    temporary_folder folder;
    log_capture log;
    crash_config_record record = {};

    EXPECT_EQ(write_crash_config(&record, folder.file(L"none\\a.cfg").c_str()), 2);
    EXPECT_EQ(log.take(), lines{"error open failed 2."});
    EXPECT_EQ(bytes_of(record), std::string(50, '\0'));
    EXPECT_EQ(write_crash_config(NULL, L"a"), 1);
    EXPECT_EQ(write_crash_config(&record, NULL), 1);
}
