/* Checks of files, searches and streams, in the folder of the run. */
#include "conformance.h"

#include <cstdio>
#include <cstring>

#include <set>

static constexpr uint64_t HOUR_100NS = 36000000000ull;
static constexpr DWORD ALL_SHARES = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

static std::wstring in_folder(const conformance &run, const wchar_t *name)
{
    return run.folder + L"\\" + name;
}

static HANDLE open(const std::wstring &path, DWORD access, DWORD disposition,
                   DWORD share = ALL_SHARES)
{
    return CreateFileW(path.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                       nullptr);
}

static DWORD open_error(const std::wstring &path, DWORD access, DWORD disposition,
                        DWORD share = ALL_SHARES)
{
    return opening_error(open(path, access, disposition, share), CloseHandle);
}

static uint64_t value_of(const FILETIME &time)
{
    return (static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

static FILETIME filetime_of(uint64_t time)
{
    return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
}

struct file_times {
    uint64_t created, accessed, written;
};

static file_times times_of(const std::wstring &path)
{
    FILETIME created = {}, accessed = {}, written = {};
    HANDLE file = open(path, GENERIC_READ, OPEN_EXISTING);

    GetFileTime(file, &created, &accessed, &written);
    CloseHandle(file);
    return {value_of(created), value_of(accessed), value_of(written)};
}

static void check_opening(conformance &run)
{
    const std::wstring path = in_folder(run, L"opening.txt");
    HANDLE file = open(path, GENERIC_WRITE, CREATE_ALWAYS, 0);

    run.works("CreateFileW", "a new file", file != INVALID_HANDLE_VALUE);
    run.gives("CreateFileW", "a file that its writer does not share",
              open_error(path, GENERIC_READ, OPEN_EXISTING), {ERROR_SHARING_VIOLATION});
    CloseHandle(file);
    file = open(path, GENERIC_READ, OPEN_EXISTING, FILE_SHARE_READ);
    run.gives("CreateFileW", "a writer where readers share reading",
              open_error(path, GENERIC_WRITE, OPEN_EXISTING), {ERROR_SHARING_VIOLATION});
    run.fails("DeleteFileW", "a file that is open without sharing", DeleteFileW(path.c_str()),
              {ERROR_SHARING_VIOLATION});
    CloseHandle(file);
    run.gives("CreateFileW", "creating a file that exists",
              open_error(path, GENERIC_WRITE, CREATE_NEW), {ERROR_FILE_EXISTS});
    file = open(path, GENERIC_WRITE, CREATE_ALWAYS);
    run.gives("CreateFileW", "overwriting a file: last error", GetLastError(),
              {ERROR_ALREADY_EXISTS});
    CloseHandle(file);
    run.gives("CreateFileW", "truncating without a right to write",
              open_error(path, GENERIC_READ, TRUNCATE_EXISTING),
              {ERROR_INVALID_PARAMETER, ERROR_ACCESS_DENIED}, OBSERVED);
    run.gives("CreateFileW", "a file that is none",
              open_error(in_folder(run, L"none.txt"), GENERIC_READ, OPEN_EXISTING),
              {ERROR_FILE_NOT_FOUND});
    run.gives("CreateFileW", "a folder that is none",
              open_error(in_folder(run, L"none\\none.txt"), GENERIC_READ, OPEN_EXISTING),
              {ERROR_PATH_NOT_FOUND});
    run.gives("CreateFileW", "an empty path", open_error(L"", GENERIC_READ, OPEN_EXISTING),
              {ERROR_PATH_NOT_FOUND}, OBSERVED);
    run.gives(
        "CreateFileW", "no path",
        opening_error(CreateFileW(nullptr, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr),
                      CloseHandle),
        {ERROR_PATH_NOT_FOUND, ERROR_INVALID_PARAMETER});
    run.gives(
        "CreateFileW", "a path above 259 characters",
        open_error(in_folder(run, std::wstring(260, L'x').c_str()), GENERIC_READ, OPEN_EXISTING),
        {ERROR_PATH_NOT_FOUND, ERROR_INVALID_NAME, ERROR_FILENAME_EXCED_RANGE}, OBSERVED);
    run.gives("CreateFileW", "a folder", open_error(run.folder, GENERIC_READ, OPEN_EXISTING),
              {ERROR_ACCESS_DENIED});
    run.gives("CreateFileA", "an empty path",
              opening_error(CreateFileA("", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr),
                            CloseHandle),
              {ERROR_PATH_NOT_FOUND}, OBSERVED);
    run.works("DeleteFileW", "a file", DeleteFileW(path.c_str()));
    run.fails("DeleteFileW", "a file that is none", DeleteFileW(path.c_str()),
              {ERROR_FILE_NOT_FOUND});
    run.fails("DeleteFileW", "an empty path", DeleteFileW(L""), {ERROR_PATH_NOT_FOUND}, OBSERVED);
}

static void check_content(conformance &run)
{
    const std::wstring path = in_folder(run, L"content.txt");
    HANDLE file = open(path, GENERIC_WRITE, CREATE_ALWAYS);
    BY_HANDLE_FILE_INFORMATION information = {};
    char buffer[8] = {};
    DWORD count = 0;

    run.works("WriteFile", "four bytes", WriteFile(file, "four", 4, &count, nullptr));
    run.gives("WriteFile", "four bytes: written", count, {4});
    run.fails("ReadFile", "a handle for writing only",
              ReadFile(file, buffer, sizeof(buffer), &count, nullptr), {ERROR_ACCESS_DENIED});
    run.works("WriteFile", "no bytes", WriteFile(file, "", 0, &count, nullptr));
    CloseHandle(file);
    file = open(path, GENERIC_READ, OPEN_EXISTING);
    run.works("GetFileInformationByHandle", "a file",
              GetFileInformationByHandle(file, &information));
    run.gives("WriteFile", "no bytes never extend", information.nFileSizeLow, {4}, OBSERVED);
    run.works("ReadFile", "a file", ReadFile(file, buffer, sizeof(buffer), &count, nullptr));
    run.gives("ReadFile", "a file: read", count, {4});
    run.works("ReadFile", "at the end", ReadFile(file, buffer, 1, &count, nullptr));
    run.gives("ReadFile", "at the end: read", count, {0});
    run.fails("WriteFile", "a handle for reading only", WriteFile(file, "x", 1, &count, nullptr),
              {ERROR_ACCESS_DENIED});
    CloseHandle(file);
    DeleteFileW(path.c_str());
}

static void check_times(conformance &run)
{
    const std::wstring path = in_folder(run, L"times.txt");
    HANDLE file = open(path, GENERIC_WRITE, CREATE_ALWAYS);
    const uint64_t base = 132000000000000000ull, created = base, written = base + HOUR_100NS;
    FILETIME time = filetime_of(created), other = filetime_of(written);
    BY_HANDLE_FILE_INFORMATION information = {};
    WIN32_FIND_DATAW found = {};
    DWORD count;

    WriteFile(file, "x", 1, &count, nullptr);
    run.works("SetFileTime", "creation and write time", SetFileTime(file, &time, nullptr, &other));
    CloseHandle(file);
    run.gives("SetFileTime", "the write time survives the close", times_of(path).written, {written},
              OBSERVED);
    run.gives("GetFileTime", "the creation time is its own", times_of(path).created, {created});
    file = open(path, GENERIC_WRITE, OPEN_EXISTING);
    CloseHandle(file);
    run.gives("CloseHandle", "without a write leaves the write time", times_of(path).written,
              {written}, OBSERVED);
    file = open(path, GENERIC_READ, OPEN_EXISTING);
    run.fails("SetFileTime", "a handle without the right",
              SetFileTime(file, &time, nullptr, nullptr), {ERROR_ACCESS_DENIED});
    GetFileInformationByHandle(file, &information);
    run.gives("GetFileInformationByHandle", "the creation time",
              value_of(information.ftCreationTime), {created});
    run.works("GetFileTime", "no outputs", GetFileTime(file, nullptr, nullptr, nullptr));
    CloseHandle(file);
    FindClose(FindFirstFileW(path.c_str(), &found));
    run.gives("FindFirstFileW", "the creation time", value_of(found.ftCreationTime), {created});
    file = open(path, GENERIC_WRITE, CREATE_ALWAYS);
    CloseHandle(file);
    run.gives("CreateFileW", "overwriting keeps the creation time", times_of(path).created,
              {created}, OBSERVED);
    run.fails("GetFileTime", "a handle that is none",
              GetFileTime(no_handle(), nullptr, nullptr, nullptr), {ERROR_INVALID_HANDLE});
    DeleteFileW(path.c_str());
}

void check_files(conformance &run)
{
    check_opening(run);
    check_content(run);
    check_times(run);
}

static DWORD count_found(const std::wstring &pattern, std::set<std::wstring> *names)
{
    WIN32_FIND_DATAW data = {};
    HANDLE search = FindFirstFileW(pattern.c_str(), &data);
    DWORD error;

    if (search == INVALID_HANDLE_VALUE)
        return GetLastError();
    do {
        names->insert(data.cFileName);
    } while (FindNextFileW(search, &data));
    error = GetLastError();
    FindClose(search);
    return error;
}

void check_searches(conformance &run)
{
    std::set<std::wstring> names;
    WIN32_FIND_DATAW data = {};

    for (const wchar_t *name : {L"first.dmp", L"SECOND.DMP", L"plain"})
        CloseHandle(open(in_folder(run, name), GENERIC_WRITE, CREATE_ALWAYS));
    run.gives("FindNextFileW", "after the last name", count_found(in_folder(run, L"*.dmp"), &names),
              {ERROR_NO_MORE_FILES});
    run.gives("FindNextFileW", "the case of names is ignored", names.size(), {2});
    names.clear();
    count_found(in_folder(run, L"*.*"), &names);
    run.gives("FindNextFileW", "*.* lists names without a dot, too", names.count(L"plain"), {1},
              OBSERVED);
    run.gives("FindFirstFileW", "a pattern that fits nothing",
              count_found(in_folder(run, L"*.none"), &names), {ERROR_FILE_NOT_FOUND});
    run.gives("FindFirstFileW", "a folder that is none",
              count_found(in_folder(run, L"none\\*"), &names), {ERROR_PATH_NOT_FOUND});
    run.gives("FindFirstFileW", "an empty pattern", count_found(L"", &names),
              {ERROR_PATH_NOT_FOUND}, OBSERVED);
    HANDLE search = FindFirstFileW(in_folder(run, L"plain").c_str(), &data);
    run.works("FindClose", "a search", FindClose(search));
    for (const wchar_t *name : {L"first.dmp", L"SECOND.DMP", L"plain"})
        DeleteFileW(in_folder(run, name).c_str());
}

void check_streams(conformance &run)
{
    const std::wstring path = in_folder(run, L"stream.bin");
    char buffer[8] = {};
    DWORD count;
    HANDLE file = open(path, GENERIC_WRITE, CREATE_ALWAYS);

    WriteFile(file, "abcdef", 6, &count, nullptr);
    CloseHandle(file);
    FILE *stream = run.open_stream(path.c_str(), L"r+b");
    if (stream == nullptr)
        return;
    run.gives("fread", "more than there is", fread(buffer, 1, sizeof(buffer), stream), {6});
    run.gives("fread", "at the end", fread(buffer, 1, 1, stream), {0});
    run.gives("fseek", "to the begin", fseek(stream, 0, SEEK_SET), {0});
    run.holds("fseek", "before the begin", fseek(stream, -1, SEEK_SET) != 0);
    run.gives("fwrite", "over the first bytes", fwrite("XY", 1, 2, stream), {2});
    run.gives("fclose", "an open stream", fclose(stream), {0});
    file = open(path, GENERIC_READ, OPEN_EXISTING);
    ReadFile(file, buffer, sizeof(buffer), &count, nullptr);
    run.holds("fwrite", "what is in the file", memcmp(buffer, "XYcdef", 6) == 0 && count == 6);
    CloseHandle(file);
    DeleteFileW(path.c_str());
}
