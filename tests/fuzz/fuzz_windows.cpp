/*
 * Random sequences of calls of files, made below a folder on the memory disk and below one on the real
 * disk, in one process: each result must be the same. A call draws its arguments itself, from chances
 * that begin equal on both sides. Named checks (tests/conformance) hold the other stand-ins to Windows.
 *
 * Not made, because Wine is known to differ: opening with TRUNCATE_EXISTING or setting times without
 * the right, creation times, a move that changes the case only, a move of a missing file, or of a
 * folder onto something or with open files. Streams that append are left to the C runtime.
 */
#include "fuzz.h"

#include <cstdio>
#include <windows.h>

#include <algorithm>

#include <oxni/base/path.h>

#include "base/text.h"

static constexpr int CALLS_PER_SEQUENCE = 40;

/* One side of the comparison, with what its calls have opened. */
struct side {
    std::wstring folder; /* with a backslash at the end */
    std::vector<HANDLE> handles;
};
static side s_memory, s_real;

static std::string bool_text(BOOL done)
{
    return done ? "done" : text_format("error %lu", GetLastError());
}

static std::string open_file(const std::wstring &path, HANDLE &handle, chance &chance)
{
    static const DWORD accesses[] = {GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE};
    static const DWORD shares[] = {0, FILE_SHARE_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE};
    static const DWORD dispositions[] = {CREATE_NEW, CREATE_ALWAYS, OPEN_EXISTING, OPEN_ALWAYS};
    const DWORD access = chance.of(accesses), share = chance.of(shares),
                disposition = chance.of(dispositions);

    if (handle != INVALID_HANDLE_VALUE)
        return "";
    handle = CreateFileW(path.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                         nullptr);
    const std::string result = bool_text(handle != INVALID_HANDLE_VALUE);

    return text_format("CreateFileW access %lx, share %lx, disposition %lu: ", access, share,
                       disposition) +
           result;
}

static std::string transfer(HANDLE handle, bool writes, DWORD bytes)
{
    char buffer[64] = {};
    DWORD count = 0;
    const BOOL done = writes ? WriteFile(handle, "0123456789012345678901234567890123456789", bytes,
                                         &count, nullptr)
                             : ReadFile(handle, buffer, bytes, &count, nullptr);
    const std::string result = bool_text(done);

    return text_format("%s %lu: %s %lu '%s'", writes ? "WriteFile" : "ReadFile", bytes,
                       result.c_str(), done ? count : 0, done ? buffer : "");
}

static std::string list(const std::wstring &pattern)
{
    WIN32_FIND_DATAW data = {};
    HANDLE search = FindFirstFileW(pattern.c_str(), &data);
    std::vector<std::wstring> names;
    std::string text = "FindFirstFileW ";

    if (search == INVALID_HANDLE_VALUE)
        return text + bool_text(FALSE);
    do {
        names.push_back(text_lower(std::wstring(data.cFileName)) + L" " +
                        std::to_wstring(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) + L" " +
                        std::to_wstring(data.nFileSizeLow));
    } while (FindNextFileW(search, &data));
    FindClose(search);
    std::sort(names.begin(), names.end());
    for (const std::wstring &name : names)
        text += text_narrow(name) + "; ";
    return text;
}

/* What a stream's calls return and leave in the file. */
static std::string play_stream(const std::wstring &path, chance &chance)
{
    static const char *const steps[] = {"", "r", "rrr", "0w0r", "w", "0w", "r-r", "er", "e0w"};
    const std::string mode = chance.word("rb wb wb+ rb+ r+b");
    FILE *stream = oxni_file_open_w(path.c_str(), text_wide(mode).c_str());
    char bytes[8] = "";
    std::string text = "stream " + mode + ": ";

    if (stream == nullptr)
        return text + "none";
    for (const char *step = chance.of(steps); *step != '\0'; step++) {
        size_t result = 0;

        switch (*step) {
        case 'r': result = fread(bytes, 2, 3, stream); break;
        case 'w': result = fwrite("abcdef", 3, 2, stream); break;
        case '0': result = static_cast<size_t>(fseek(stream, 0, SEEK_SET)); break;
        case '-': result = static_cast<size_t>(fseek(stream, -3, SEEK_CUR)); break;
        default: result = static_cast<size_t>(fseek(stream, 2, SEEK_END)); break;
        }
        text += *step + std::to_string(static_cast<int>(result)) + " ";
    }
    fclose(stream);
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    text += std::string(bytes) + ", file: " + transfer(file, false, 60);
    CloseHandle(file);
    return text;
}

static void close_files(side &on)
{
    for (HANDLE &handle : on.handles) {
        if (handle != INVALID_HANDLE_VALUE)
            CloseHandle(handle);
        handle = INVALID_HANDLE_VALUE;
    }
}

static std::string move_file(const side &on, const std::wstring &from, const std::wstring &to,
                             DWORD flags)
{
    const DWORD attributes = GetFileAttributesW(from.c_str());
    const bool none_open = std::count(on.handles.begin(), on.handles.end(), INVALID_HANDLE_VALUE) ==
                           static_cast<ptrdiff_t>(on.handles.size());

    if (attributes == INVALID_FILE_ATTRIBUTES ||
        ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
         !(none_open && GetFileAttributesW(to.c_str()) == INVALID_FILE_ATTRIBUTES)))
        return "";
    const std::string result = bool_text(MoveFileExW(from.c_str(), to.c_str(), flags));

    return text_format("MoveFileExW to '%s', %lu: %s",
                       text_narrow(to.substr(on.folder.size())).c_str(), flags, result.c_str());
}

/* A call of a file, or of the handle in one of four places. */
static std::string call_file(side &on, const std::wstring &name, chance &chance)
{
    static const wchar_t *const others[] = {L"a", L"B.TXT", L"sub", L"sub\\c", L"sub\\d.dmp"};
    const std::wstring path = on.folder + name, other = on.folder + chance.of(others);
    HANDLE &handle = on.handles[chance.below(on.handles.size())];
    const DWORD bytes = static_cast<DWORD>(chance.below(40));
    LARGE_INTEGER size = {};
    DWORD result;

    switch (chance.below(12)) {
    case 0: return open_file(path, handle, chance);
    case 1: return transfer(handle, true, bytes);
    case 2: return transfer(handle, false, bytes);
    case 3:
        result = handle != INVALID_HANDLE_VALUE && CloseHandle(handle);
        handle = INVALID_HANDLE_VALUE;
        return text_format("CloseHandle %lu", result);
    case 4:
        if (!DeleteFileW(path.c_str()))
            return "DeleteFileW " + bool_text(FALSE);
        close_files(on); /* Wine keeps the name until then, Windows since version 10 does not */
        return "DeleteFileW done";
    case 5: return "CreateDirectoryW " + bool_text(CreateDirectoryW(path.c_str(), nullptr));
    case 6:
        return name.empty() ? "" : "RemoveDirectoryW " + bool_text(RemoveDirectoryW(path.c_str()));
    case 7:
        return name.empty() ? "" : move_file(on, path, other, bytes & MOVEFILE_REPLACE_EXISTING);
    case 8: return list(on.folder + (bytes % 2 != 0 ? L"*" : L"*.txt"));
    case 9:
        result = GetFileAttributesW(path.c_str());
        return "GetFileAttributesW " + (result == INVALID_FILE_ATTRIBUTES
                                            ? bool_text(FALSE)
                                            : std::to_string(result & FILE_ATTRIBUTE_DIRECTORY));
    case 10:
        close_files(on); /* streams share no file with handles */
        return play_stream(path, chance);
    default:
        return handle == INVALID_HANDLE_VALUE
                   ? ""
                   : "GetFileSizeEx " + bool_text(GetFileSizeEx(handle, &size)) +
                         std::to_string(size.QuadPart);
    }
}

static std::string make_file_call(side &on, chance &chance)
{
    static const wchar_t *const names[] = {L"a",      L"b.txt",      L"B.TXT",   L"sub",
                                           L"sub\\c", L"sub\\d.dmp", L"none\\e", L""};
    const std::wstring name = chance.of(names);

    return "'" + text_narrow(name) + "' " + call_file(on, name, chance);
}

static void open_files(void)
{
    s_memory = {text_wide(fuzz_memory.path), std::vector<HANDLE>(4, INVALID_HANDLE_VALUE)};
    s_real = {text_wide(fuzz_disk.path), s_memory.handles};
}

static void try_files(chance &chance, uint64_t)
{
    std::string all;

    for (int i = 0; i < CALLS_PER_SEQUENCE; i++) {
        class chance first(chance.next()), second = first;
        const std::string memory = make_file_call(s_memory, first),
                          real = make_file_call(s_real, second);

        all += "\n  memory: " + memory + "\n  real:   " + real;
        if (memory != real)
            violated("the last call differs:" + all);
    }
    close_files(s_memory);
    close_files(s_real);
    fuzz_memory.empty();
    fuzz_disk.empty();
}
FUZZ_TARGET(file_calls, open_files, try_files, 1, 300)
