/*
 * Random sequences of calls, made to a stand-in and to Wine's real call in one process: each result
 * must be the same. Files: one folder is on the memory disk, another on the real one. Registry and
 * environment: the machine's stand-in and the real call. A call draws its arguments itself, from chances
 * that begin equal on both sides.
 *
 * Not made, because Wine is known to differ: opening with TRUNCATE_EXISTING or setting times without
 * the right, creation times, keys directly below HKEY_LOCAL_MACHINE, unknown options, the disposition
 * of a key that is created by an empty name, a move that changes the case only, a move of a missing
 * file, or of a folder onto something or with open files. Streams that append are left to the C runtime.
 */
#include "fuzz.h"

#include <cstdio>
#include <windows.h>

#include <algorithm>

#include <oxni/base/path.h>

#include "base/text.h"
#include "machine/machine.h"
#include "machine/machine_open.h"
#include "machine/registry.h"

static constexpr int CALLS_PER_SEQUENCE = 40;

/* One side of the comparison, with what its calls have opened. */
struct side {
    bool is_real;
    std::wstring folder; /* with a backslash at the end */
    std::vector<HANDLE> handles;
    HKEY keys[4]; /* the first is the own one */
    decltype(&RegCreateKeyExW) create;
    decltype(&RegOpenKeyExW) open;
    decltype(&RegDeleteKeyW) remove;
    decltype(&RegQueryValueExW) query;
    decltype(&RegCloseKey) close;
};
static side s_sides[2];

/* make: makes a call on one side. Result: its arguments and results in words; empty: no call. */
static void compare(std::string (*make)(side &on, chance &chance), int calls, chance &chance)
{
    std::string all;

    for (int i = 0; i < calls; i++) {
        const uint64_t drawn = chance.next();
        std::string made[2];

        for (side &on : s_sides) {
            class chance same(drawn);
            made[on.is_real] = make(on, same);
        }
        all += "\n  stand-in: " + made[0] + "\n  real:     " + made[1];
        if (made[0] != made[1])
            violated("the last call differs:" + all);
    }
}

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
    s_sides[0].folder = text_wide(fuzz_memory.path);
    s_sides[1].folder = text_wide(fuzz_disk.path);
    s_sides[1].is_real = true;
    for (side &on : s_sides)
        on.handles.assign(4, INVALID_HANDLE_VALUE);
}

static void try_files(chance &chance, uint64_t)
{
    compare(make_file_call, CALLS_PER_SEQUENCE, chance);
    for (side &on : s_sides)
        close_files(on);
    fuzz_memory.empty();
    fuzz_disk.empty();
}
FUZZ_TARGET(file_calls, open_files, try_files, 1, 300)

static std::wstring s_key; /* of this process */

/* Not the imports of this program: they may be redirected. */
template <typename Function> static void take(bool real, const char *name, Function *function)
{
    const HMODULE library = GetModuleHandleW(L"advapi32.dll");

    *function = reinterpret_cast<Function>(
        real ? reinterpret_cast<void *>(GetProcAddress(library, name)) : machine_stand_in(name));
}

static void open_machine(void)
{
    machine_open(text_wide(fuzz_disk.path.substr(0, fuzz_disk.path.size() - 1)));
    for (const wchar_t *name : {L"SystemRoot", L"windir"})
        SetEnvironmentVariableW(name, machine_get().windows_folder.c_str());
    s_key = L"SOFTWARE\\fuzz_" + std::to_wstring(GetCurrentProcessId());
    s_sides[1].is_real = true;
    for (side &on : s_sides) {
        take(on.is_real, "RegCreateKeyExW", &on.create);
        take(on.is_real, "RegOpenKeyExW", &on.open);
        take(on.is_real, "RegDeleteKeyW", &on.remove);
        take(on.is_real, "RegQueryValueExW", &on.query);
        take(on.is_real, "RegCloseKey", &on.close);
    }
}

static std::string query_text(const side &on, HKEY key, DWORD capacity)
{
    BYTE data[64] = {};
    DWORD bytes = capacity, type = 0;
    const LONG error =
        on.query(key, L"Value", nullptr, &type, capacity != 0 ? data : nullptr, &bytes);

    return text_format("RegQueryValueExW %lu: %ld, type %lu, %lu bytes, %02x %02x", capacity, error,
                       error == 0 ? type : 0, error == 0 || error == ERROR_MORE_DATA ? bytes : 0,
                       data[0], data[2]);
}

/* Creates or opens a key, which is kept where there is a place for it. */
static std::string open_key(side &on, HKEY from, const wchar_t *name, bool creates, chance &chance)
{
    static const REGSAM accesses[] = {KEY_READ, KEY_ALL_ACCESS, KEY_QUERY_VALUE};
    const REGSAM access = chance.of(accesses);
    HKEY &kept = on.keys[1 + chance.below(3)], key = nullptr;
    DWORD disposition = 0;
    const LONG error = creates ? on.create(from, name, 0, nullptr, REG_OPTION_VOLATILE, access,
                                           nullptr, &key, &disposition)
                               : on.open(from, name, 0, access, &key);

    if (error == ERROR_SUCCESS && kept == nullptr)
        kept = key;
    else if (error == ERROR_SUCCESS)
        on.close(key);
    return text_format("%s access %lx: %ld, disposition %lu", creates ? "create" : "open", access,
                       error, *name == L'\0' ? 0 : disposition);
}

static std::string make_registry_call(side &on, chance &chance)
{
    static const wchar_t *const names[] = {L"one",   L"ONE",   L"one\\two", L"one\\two\\",
                                           L"three", L"\\one", L""};
    const size_t index = chance.below(4), kind = chance.below(5);
    const wchar_t *name = chance.of(names);
    const HKEY from = on.keys[index];
    const std::string place = std::to_string(index) + " '" + text_narrow(name) + "': ";

    if (from == nullptr || (kind == 4 && index == 0))
        return "";
    switch (kind) {
    case 0:
    case 1: return place + open_key(on, from, name, kind == 0, chance);
    case 2: return place + text_format("RegDeleteKeyW %ld", on.remove(from, name));
    case 3: return place + query_text(on, from, 20 * static_cast<DWORD>(chance.below(3)));
    default: on.keys[index] = nullptr; return place + text_format("close %ld", on.close(from));
    }
}

static void try_registry_calls(chance &chance, uint64_t)
{
    const std::wstring text = L"text " + std::to_wstring(chance.below(1000000));
    const DWORD bytes = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));

    for (side &on : s_sides)
        on.create(HKEY_LOCAL_MACHINE, s_key.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                  KEY_ALL_ACCESS, nullptr, &on.keys[0], nullptr);
    machine_set_value(s_key, L"Value", REG_SZ,
                      std::string(reinterpret_cast<const char *>(text.c_str()), bytes));
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, s_key.c_str(), L"Value", REG_SZ, text.c_str(), bytes);
    compare(make_registry_call, CALLS_PER_SEQUENCE, chance);
    for (side &on : s_sides)
        for (HKEY &key : on.keys) {
            if (key != nullptr)
                on.close(key);
            key = nullptr;
        }
    machine_delete_key(s_key);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, s_key.c_str());
}
FUZZ_TARGET(registry_calls, open_machine, try_registry_calls, 1, 300)

static std::string expand(side &on, chance &chance)
{
    static const wchar_t *const parts[] = {L"%",    L"SystemRoot", L"windir", L"%SystemRoot%",
                                           L"none", L"\\x",        L" ",      L"%none%"};
    std::wstring text;
    wchar_t real[1024] = {};

    for (size_t left = 1 + chance.below(8); left > 0; left--)
        text += chance.of(parts);
    ExpandEnvironmentStringsW(text.c_str(), real, ARRAYSIZE(real));
    return text_narrow(text + L" is " + (on.is_real ? real : machine_expand(text)));
}

static void try_expansion(chance &chance, uint64_t)
{
    compare(expand, 1, chance);
}
FUZZ_TARGET(expansions, open_machine, try_expansion, 1, 300)
