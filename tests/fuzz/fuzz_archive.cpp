/* Archives that people hand in: their members are extracted, or refused with a reason. */
#include "fuzz.h"

#include <cstring>
#include <windows.h>

#include <algorithm>

#include <zlib.h>

#include "base/file.h"
#include "base/text.h"
#include "evidence/zip.h"

static constexpr char NAME[] = "input";
static constexpr uint16_t STORED = 0, DEFLATED = 8;

static std::vector<std::string> s_good;

static std::string number(uint64_t value, size_t bytes)
{
    std::string text(std::max(bytes, sizeof(value)), '\0');

    memcpy(&text[0], &value, sizeof(value));
    return text.substr(0, bytes);
}

static std::string deflated(const std::string &text)
{
    std::string packed(text.size() + 64, '\0');
    z_stream stream = {};

    (void)deflateInit2(&stream, 9, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef *>(&packed[0]);
    stream.avail_out = static_cast<uInt>(packed.size());
    (void)deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    (void)deflateEnd(&stream);
    return packed;
}

struct member {
    std::string name, text;
    uint16_t method;
};

/* large: the sizes and the place are in the fields for archives of more than 4 GiB. */
static std::string archive_of(const std::vector<member> &members, bool large)
{
    std::string file, directory;

    for (const member &one : members) {
        const std::string packed = one.method == DEFLATED ? deflated(one.text) : one.text;
        const std::string sums = number(0x14, 2) + number(0, 2) + number(one.method, 2) +
                                 number(0, 4) +
                                 number(crc32(0, reinterpret_cast<const Bytef *>(one.text.data()),
                                              static_cast<uInt>(one.text.size())),
                                        4);
        const std::string sizes = number(packed.size(), 4) + number(one.text.size(), 4);
        const std::string extra = number(1, 2) + number(24, 2) + number(one.text.size(), 8) +
                                  number(packed.size(), 8) + number(file.size(), 8);

        directory += "PK\x01\x02" + number(0x14, 2) + sums +
                     (large ? std::string(8, '\xff') : sizes) + number(one.name.size(), 2) +
                     number(large ? extra.size() : 0, 2) + number(0, 10) +
                     (large ? std::string(4, '\xff') : number(file.size(), 4)) + one.name +
                     (large ? extra : "");
        file += "PK\x03\x04" + sums + sizes + number(one.name.size(), 2) + number(0, 2) + one.name +
                packed;
    }
    const std::string end64 = "PK\x06\x06" + number(44, 8) + number(0, 12) +
                              number(members.size(), 8) + number(members.size(), 8) +
                              number(directory.size(), 8) + number(file.size(), 8);
    const std::string locator =
        "PK\x06\x07" + number(0, 4) + number(file.size() + directory.size(), 8) + number(1, 4);

    return file + directory + (large ? end64 + locator : "") + "PK\x05\x06" + number(0, 4) +
           number(members.size(), 2) + number(members.size(), 2) + number(directory.size(), 4) +
           number(file.size(), 4) + number(0, 2);
}

static bool wants_all(const std::string &)
{
    return true;
}

/* Result: the members, or none with the reason. */
static std::vector<zip_member> extracted(const std::string &archive, std::string *refused)
{
    const uint8_t *block = fuzz_guarded(archive.data(), archive.size());

    try {
        return zip_extract(evidence_file(NAME, block, archive.size()), fuzz_disk.path, wants_all);
    } catch (const devhost_error &error) {
        *refused = error.what();
        return {};
    }
}

static uint64_t size_of(const std::string &path)
{
    WIN32_FILE_ATTRIBUTE_DATA facts = {};

    if (!GetFileAttributesExW(text_wide(path).c_str(), GetFileExInfoStandard, &facts))
        violated("a member was extracted to " + path + ", which is not there");
    return static_cast<uint64_t>(facts.nFileSizeHigh) << 32 | facts.nFileSizeLow;
}

static void open_zip(void)
{
    const std::string text = "PAGEDU64 " + std::string(3000, 'a') + "the end",
                      name = "a/System.evtx";
    std::string refused;

    s_good = {
        archive_of({{name, text, DEFLATED}, {"machine.reg", text, STORED}, {"b/", "", STORED}},
                   false),
        archive_of({{name, text, STORED},                      {"\xe6\x97\xa5.dmp", text, DEFLATED}                               },
        true)
    };
    for (const std::string &good : s_good) {
        const std::vector<zip_member> members = extracted(good, &refused);

        if (members.size() != 2 || members[0].name != name ||
            size_of(members[0].path) != text.size() || size_of(members[1].path) != text.size())
            violated("a good archive is not extracted: " + refused);
        fuzz_disk.empty();
    }
}

static void try_zip(chance &chance, uint64_t)
{
    std::string archive = chance.of(s_good), refused;

    damage(&archive, chance.of(s_good), chance);
    const std::vector<zip_member> members = extracted(archive, &refused);

    if (members.empty() && !refused.empty() && refused.compare(0, strlen(NAME) + 2, "input: ") != 0)
        violated("an error that does not name the archive: " + refused);
    for (const zip_member &one : members) {
        if (one.path.empty() == one.why.empty())
            violated("a member that is neither extracted nor refused: " + one.name);
        if (!one.path.empty() && (one.path.compare(0, fuzz_disk.path.size(), fuzz_disk.path) != 0 ||
                                  one.path.find("..", fuzz_disk.path.size()) != std::string::npos))
            violated("a member was extracted to " + one.path);
        if (!one.path.empty())
            (void)size_of(one.path);
    }
    if (!members.empty())
        fuzz_disk.empty();
}
FUZZ_TARGET(zip, open_zip, try_zip, 1, 500)
