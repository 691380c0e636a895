#include "disk/memory_disk.h"

#include <cstdio>

#include <string>

#include <gtest/gtest.h>

#include <oxni/base/path.h>

#include "base/text.h"

namespace
{
std::wstring temporary_folder(const wchar_t *name)
{
    wchar_t path[MAX_PATH];

    GetTempPathW(MAX_PATH, path);
    std::wstring folder = path + std::wstring(name) + std::to_wstring(GetCurrentProcessId());
    CreateDirectoryW(folder.c_str(), nullptr);
    return folder;
}

std::string shown(FILE *stream, const char *calls)
{
    std::string text;
    char bytes[8] = "";

    for (const char *call = calls; stream != nullptr && *call != '\0'; call++) {
        size_t result = 0;

        switch (*call) {
        case 'r': result = fread(bytes, 2, 3, stream); break;
        case 'w': result = fwrite("abcdef", 3, 2, stream); break;
        case '0': result = static_cast<size_t>(fseek(stream, 0, SEEK_SET)); break;
        case '-': result = static_cast<size_t>(fseek(stream, -3, SEEK_CUR)); break;
        case 'e': result = static_cast<size_t>(fseek(stream, 2, SEEK_END)); break;
        default: ADD_FAILURE() << *call;
        }
        text += *call + std::to_string(static_cast<int>(result)) + " ";
    }
    return stream == nullptr ? "none" : text + bytes;
}

std::string bytes_of(const std::wstring &path)
{
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    char bytes[64];
    DWORD got = 0;

    if (file == INVALID_HANDLE_VALUE)
        return "missing";
    ReadFile(file, bytes, sizeof(bytes), &got, nullptr);
    CloseHandle(file);
    return std::string(bytes, got);
}

/* What the calls return and leave in the file. */
std::string play(const std::wstring &folder, const wchar_t *mode, bool exists, const char *calls)
{
    const std::wstring path = folder + L"\\record.cfg";
    DWORD written;

    DeleteFileW(path.c_str());
    if (exists) {
        HANDLE file =
            CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        WriteFile(file, "0123456789", 10, &written, nullptr);
        CloseHandle(file);
    }
    FILE *stream = oxni_file_open_w(path.c_str(), mode);
    std::string text = shown(stream, calls);
    if (stream != nullptr)
        fclose(stream);
    return text + ", file: " + bytes_of(path);
}

/* Streams in memory behave as those of the C runtime on the disk. */
TEST(memory_disk, streams_are_those_of_the_c_runtime)
{
    const std::wstring memory = temporary_folder(L"memory-"), disk = temporary_folder(L"disk-");
    const char *const calls[] = {"", "r", "rrr", "0w0r", "w", "0w", "r-r", "er", "e0w"};

    memory_disk_open(memory);
    for (const wchar_t *mode : {L"rb", L"wb", L"wb+", L"rb+", L"r+b", L"ab"})
        for (bool exists : {false, true})
            for (const char *each : calls)
                EXPECT_EQ(play(disk, mode, exists, each), play(memory, mode, exists, each))
                    << text_narrow(mode) << " " << exists << " " << each;
    play(memory, L"wb+", true, "w");
    EXPECT_EQ(6U, memory_disk_file(text_narrow(memory + L"\\record.cfg")).size());
    for (const std::wstring &folder : {memory, disk}) {
        DeleteFileW((folder + L"\\record.cfg").c_str());
        RemoveDirectoryW(folder.c_str());
    }
}
} // namespace
