/*
 * Random sequences of calls, made to a stand-in and to Wine's real call in one process: each result
 * must be the same. Files: one folder is on the memory disk, another on the real one. Registry and
 * environment: the machine's stand-in and the real call.
 *
 * usage: differential [SEQUENCES [SEED]]   sequences of each kind, 300 from seed 1 by default
 *
 * Not made, because Wine is known to differ: opening with TRUNCATE_EXISTING or setting times without
 * the right, creation times, keys directly below HKEY_LOCAL_MACHINE, unknown options, the disposition
 * of a key that is created by an empty name, a move that changes the case only, a move of a missing
 * file, or of a folder onto something or with open files. Streams that append are left to the C runtime.
 */
#include <cstdio>
#include <cstdlib>
#include <windows.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <oxni/base/path.h>

#include "base/run_folder.h"
#include "base/text.h"
#include "disk/memory_disk.h"
#include "machine/machine.h"
#include "machine/machine_open.h"
#include "machine/registry.h"

static constexpr int CALLS_PER_SEQUENCE = 40;
static constexpr wchar_t REAL_KEY[] = L"SOFTWARE\\differential_check";

static std::mt19937 s_random;
static std::vector<std::string> s_calls; /* of this sequence, in words */

static unsigned pick(unsigned count)
{
    return static_cast<unsigned>(s_random() % count);
}

template <typename T, size_t count> static const T &one_of(const T (&values)[count])
{
    return values[pick(count)];
}

static std::string differs(const std::string &ours, const std::string &real)
{
    s_calls.push_back("stand-in: " + ours + ", real: " + real);
    return ours == real ? "" : s_calls.back();
}

/* --- files: the same calls below two folders --- */

struct disk {
    std::wstring folder;
    HANDLE handles[4];
};

static std::wstring random_name(void)
{
    static const wchar_t *const names[] = {L"a",      L"b.txt",      L"B.TXT",   L"sub",
                                           L"sub\\c", L"sub\\d.dmp", L"none\\e", L""};
    return one_of(names);
}

static std::string bool_text(BOOL done)
{
    return done ? "done" : text_format("error %lu", GetLastError());
}

struct file_call {
    unsigned kind, slot;
    std::wstring name, other;
    DWORD access, share, disposition, bytes;
    const wchar_t *mode; /* of a stream, and what it does */
    const char *steps;
};

static std::string list(const std::wstring &pattern)
{
    WIN32_FIND_DATAW data = {};
    HANDLE search = FindFirstFileW(pattern.c_str(), &data);
    std::vector<std::wstring> names;
    std::string text;

    if (search == INVALID_HANDLE_VALUE)
        return bool_text(FALSE);
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

static std::string transfer(HANDLE handle, bool writes, DWORD bytes)
{
    char buffer[64] = {};
    DWORD count = 0;
    BOOL done = writes ? WriteFile(handle, "0123456789012345678901234567890123456789", bytes,
                                   &count, nullptr)
                       : ReadFile(handle, buffer, bytes, &count, nullptr);

    return bool_text(done) + text_format(" %lu '%s'", done ? count : 0, done ? buffer : "");
}

static std::string bytes_of(const std::wstring &path)
{
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);

    if (file == INVALID_HANDLE_VALUE)
        return "missing";
    std::string text = transfer(file, false, 60);
    CloseHandle(file);
    return text;
}

/* What a stream's calls return and leave in the file. */
static std::string play_stream(const std::wstring &path, const wchar_t *mode, const char *steps)
{
    FILE *stream = oxni_file_open_w(path.c_str(), mode);
    char bytes[8] = "";
    std::string text;

    if (stream == nullptr)
        return "no stream";
    for (const char *step = steps; *step != '\0'; step++) {
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
    return text + bytes + ", file: " + bytes_of(path);
}

static void close_all(disk &on)
{
    for (HANDLE &handle : on.handles) {
        if (handle != INVALID_HANDLE_VALUE)
            CloseHandle(handle);
        handle = INVALID_HANDLE_VALUE;
    }
}

static bool has_open(const disk &on)
{
    return std::any_of(on.handles, on.handles + ARRAYSIZE(on.handles),
                       [](HANDLE handle) { return handle != INVALID_HANDLE_VALUE; });
}

static std::string make_file_call(disk &on, const file_call &call)
{
    const std::wstring path = on.folder + L"\\" + call.name;
    HANDLE &handle = on.handles[call.slot];
    LARGE_INTEGER size = {};
    DWORD attributes;

    if ((call.name.empty() && call.kind >= 6 && call.kind <= 7) ||
        (call.other.empty() && call.kind == 7))
        return ""; /* the disk's own folder stays */
    switch (call.kind) {
    case 0:
        if (handle != INVALID_HANDLE_VALUE)
            return "";
        handle = CreateFileW(path.c_str(), call.access, call.share, nullptr, call.disposition,
                             FILE_ATTRIBUTE_NORMAL, nullptr);
        return text_format("CreateFileW %s", bool_text(handle != INVALID_HANDLE_VALUE).c_str());
    case 1: return "WriteFile " + transfer(handle, true, call.bytes);
    case 2: return "ReadFile " + transfer(handle, false, call.bytes);
    case 3:
        attributes = handle != INVALID_HANDLE_VALUE && CloseHandle(handle);
        handle = INVALID_HANDLE_VALUE;
        return text_format("CloseHandle %lu", attributes);
    case 4:
        attributes = static_cast<DWORD>(DeleteFileW(path.c_str()));
        if (attributes == FALSE)
            return "DeleteFileW " + bool_text(FALSE);
        close_all(on); /* Wine keeps the name until then, Windows since version 10 does not */
        return "DeleteFileW done";
    case 5: return "CreateDirectoryW " + bool_text(CreateDirectoryW(path.c_str(), nullptr));
    case 6: return "RemoveDirectoryW " + bool_text(RemoveDirectoryW(path.c_str()));
    case 7:
        attributes = GetFileAttributesW(path.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES ||
            ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && has_open(on)) ||
            ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
             GetFileAttributesW((on.folder + L"\\" + call.other).c_str()) !=
                 INVALID_FILE_ATTRIBUTES))
            return "";
        return "MoveFileExW " +
               bool_text(MoveFileExW(path.c_str(), (on.folder + L"\\" + call.other).c_str(),
                                     call.share & MOVEFILE_REPLACE_EXISTING));
    case 8:
        return "FindFirstFileW " + list(on.folder + (call.bytes % 2 != 0 ? L"\\*" : L"\\*.txt"));
    case 9:
        attributes = GetFileAttributesW(path.c_str());
        return "GetFileAttributesW " +
               (attributes == INVALID_FILE_ATTRIBUTES
                    ? bool_text(FALSE)
                    : std::to_string(attributes & FILE_ATTRIBUTE_DIRECTORY));
    case 10:
        close_all(on); /* streams share no file with handles */
        return "stream " + play_stream(path, call.mode, call.steps);
    default:
        if (handle == INVALID_HANDLE_VALUE)
            return "";
        return "GetFileSizeEx " + bool_text(GetFileSizeEx(handle, &size)) +
               std::to_string(size.QuadPart);
    }
}

static file_call random_file_call(void)
{
    static const DWORD accesses[] = {GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE};
    static const DWORD shares[] = {0, FILE_SHARE_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE};
    static const DWORD dispositions[] = {CREATE_NEW, CREATE_ALWAYS, OPEN_EXISTING, OPEN_ALWAYS};
    static const wchar_t *const modes[] = {L"rb", L"wb", L"wb+", L"rb+", L"r+b"};
    static const char *const steps[] = {"", "r", "rrr", "0w0r", "w", "0w", "r-r", "er", "e0w"};

    return {pick(12),         pick(4),        random_name(),        random_name(),
            one_of(accesses), one_of(shares), one_of(dispositions), pick(40),
            one_of(modes),    one_of(steps)};
}

static void remove_all(disk &on)
{
    close_all(on);
    for (const wchar_t *name : {L"a", L"b.txt", L"sub\\c", L"sub\\d.dmp", L"sub"}) {
        DeleteFileW((on.folder + L"\\" + name).c_str());
        RemoveDirectoryW((on.folder + L"\\" + name).c_str());
    }
}

static std::string play_files(disk &memory, disk &real)
{
    std::string problem;

    for (int i = 0; i < CALLS_PER_SEQUENCE && problem.empty(); i++) {
        const file_call call = random_file_call();

        s_calls.push_back(text_format(
            "slot %u, '%s' '%s', access %lx, share %lx, disposition %lu, %lu, %s '%s'", call.slot,
            text_narrow(call.name).c_str(), text_narrow(call.other).c_str(), call.access,
            call.share, call.disposition, call.bytes, text_narrow(call.mode).c_str(), call.steps));
        problem = differs(make_file_call(memory, call), make_file_call(real, call));
    }
    remove_all(memory);
    remove_all(real);
    return problem;
}

/* --- registry --- */

template <typename Function> static Function stand_in(const char *name)
{
    return reinterpret_cast<Function>(machine_stand_in(name));
}

/* Not the imports of this program: they may be redirected. */
template <typename Function> static Function real_call(const char *name)
{
    return reinterpret_cast<Function>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"advapi32.dll"), name)));
}

struct registry_calls {
    decltype(&RegCreateKeyExW) create;
    decltype(&RegOpenKeyExW) open;
    decltype(&RegDeleteKeyW) remove;
    decltype(&RegQueryValueExW) query;
    decltype(&RegCloseKey) close;
    HKEY keys[4]; /* the first is the own one */
};

static std::wstring random_key(void)
{
    static const wchar_t *const names[] = {L"one",   L"ONE",   L"one\\two", L"one\\two\\",
                                           L"three", L"\\one", L""};
    return one_of(names);
}

struct registry_call {
    unsigned kind, from, to;
    std::wstring name;
    REGSAM access;
    DWORD capacity;
};

static std::string query_text(registry_calls &on, HKEY key, DWORD capacity)
{
    BYTE data[64] = {};
    DWORD bytes = capacity, type = 0;
    const LONG error =
        on.query(key, L"Value", nullptr, &type, capacity != 0 ? data : nullptr, &bytes);

    return text_format("%ld, type %lu, %lu bytes, %02x %02x", error, error == 0 ? type : 0,
                       error == 0 || error == ERROR_MORE_DATA ? bytes : 0, data[0], data[2]);
}

static std::string make_registry_call(registry_calls &on, const registry_call &call)
{
    HKEY from = on.keys[call.from], key = nullptr;
    DWORD disposition = 0;
    LONG error;

    if (from == nullptr)
        return "";
    switch (call.kind) {
    case 0:
    case 1:
        error = call.kind == 0 ? on.create(from, call.name.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                                           call.access, nullptr, &key, &disposition)
                               : on.open(from, call.name.c_str(), 0, call.access, &key);
        if (error == ERROR_SUCCESS && on.keys[call.to] == nullptr)
            on.keys[call.to] = key;
        else if (error == ERROR_SUCCESS)
            on.close(key);
        return text_format("open %ld, disposition %lu", error, call.name.empty() ? 0 : disposition);
    case 2: return text_format("RegDeleteKeyW %ld", on.remove(from, call.name.c_str()));
    case 3: return "RegQueryValueExW " + query_text(on, from, call.capacity);
    default:
        if (call.from == 0)
            return "";
        on.keys[call.from] = nullptr;
        return text_format("RegCloseKey %ld", on.close(from));
    }
}

static void begin_registry(registry_calls &on)
{
    on.create(HKEY_LOCAL_MACHINE, REAL_KEY, 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS,
              nullptr, &on.keys[0], nullptr);
}

static void end_registry(registry_calls &on)
{
    for (const HKEY key : on.keys)
        if (key != nullptr)
            on.close(key);
    memset(on.keys, 0, sizeof(on.keys));
}

/* Both keys with all below them, also those of an earlier process. */
static void remove_keys(void)
{
    machine_delete_key(REAL_KEY);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, REAL_KEY);
}

static void set_value(const std::wstring &key)
{
    const std::wstring text = L"text " + std::to_wstring(pick(1000000));
    const std::string data(reinterpret_cast<const char *>(text.c_str()),
                           (text.size() + 1) * sizeof(wchar_t));

    machine_set_value(key, L"Value", REG_SZ, data);
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"Value", REG_SZ, text.c_str(),
                    static_cast<DWORD>(data.size()));
}

static std::string play_registry(registry_calls &ours, registry_calls &real)
{
    static const REGSAM accesses[] = {KEY_READ, KEY_ALL_ACCESS, KEY_QUERY_VALUE};
    std::string problem;

    remove_keys();
    begin_registry(ours);
    begin_registry(real);
    set_value(REAL_KEY);
    for (int i = 0; i < CALLS_PER_SEQUENCE && problem.empty(); i++) {
        const registry_call call = {pick(5),      pick(4),          1 + pick(3),
                                    random_key(), one_of(accesses), pick(3) * 20};

        s_calls.push_back(text_format("%u from %u '%s' access %lx", call.kind, call.from,
                                      text_narrow(call.name).c_str(), call.access));
        problem = differs(make_registry_call(ours, call), make_registry_call(real, call));
    }
    end_registry(ours);
    end_registry(real);
    remove_keys();
    return problem;
}

/* --- environment --- */

static std::string play_environment(void)
{
    static const wchar_t *const parts[] = {L"%",    L"SystemRoot", L"windir", L"%SystemRoot%",
                                           L"none", L"\\x",        L" ",      L"%none%"};
    std::wstring text;
    wchar_t real[1024] = {};

    for (unsigned i = 1 + pick(8); i > 0; i--)
        text += one_of(parts);
    s_calls.push_back(text_narrow(text));
    ExpandEnvironmentStringsW(text.c_str(), real, ARRAYSIZE(real));
    return differs(text_narrow(machine_expand(text)), text_narrow(real));
}

static bool report(const char *kind, unsigned sequences, const std::string &problem, unsigned seed)
{
    if (problem.empty()) {
        printf("%s: %u sequences, no difference\n", kind, sequences);
        return true;
    }
    printf("%s: sequence of seed %u differs:\n", kind, seed);
    for (const std::string &call : s_calls)
        printf("  %s\n", call.c_str());
    return false;
}

/* Plays sequences until one differs. */
template <typename Play>
static bool play_all(const char *kind, unsigned count, unsigned seed, Play play)
{
    std::string problem;
    unsigned each = 0;

    for (; each < count && problem.empty(); each++) {
        s_random.seed(seed + each);
        s_calls.clear();
        problem = play();
    }
    return report(kind, each, problem, seed + each - 1);
}

int main(int argc, char **argv)
{
    const unsigned sequences =
        argc > 1 ? static_cast<unsigned>(strtoul(argv[1], nullptr, 10)) : 300;
    const unsigned seed = argc > 2 ? static_cast<unsigned>(strtoul(argv[2], nullptr, 10)) : 1;
    const run_folder folder("");
    registry_calls ours = {stand_in<decltype(&RegCreateKeyExW)>("RegCreateKeyExW"),
                           stand_in<decltype(&RegOpenKeyExW)>("RegOpenKeyExW"),
                           stand_in<decltype(&RegDeleteKeyW)>("RegDeleteKeyW"),
                           stand_in<decltype(&RegQueryValueExW)>("RegQueryValueExW"),
                           stand_in<decltype(&RegCloseKey)>("RegCloseKey"),
                           {}};
    registry_calls real = {real_call<decltype(&RegCreateKeyExW)>("RegCreateKeyExW"),
                           real_call<decltype(&RegOpenKeyExW)>("RegOpenKeyExW"),
                           real_call<decltype(&RegDeleteKeyW)>("RegDeleteKeyW"),
                           real_call<decltype(&RegQueryValueExW)>("RegQueryValueExW"),
                           real_call<decltype(&RegCloseKey)>("RegCloseKey"),
                           {}};
    disk memory = {text_wide(folder.path + "\\memory"), {}},
         on_disk = {text_wide(folder.path + "\\real"), {}};
    bool equal;

    machine_open(text_wide(folder.path));
    CreateDirectoryW(memory.folder.c_str(), nullptr);
    CreateDirectoryW(on_disk.folder.c_str(), nullptr);
    memory_disk_open(memory.folder);
    for (disk *each : {&memory, &on_disk})
        for (HANDLE &handle : each->handles)
            handle = INVALID_HANDLE_VALUE;
    SetEnvironmentVariableW(L"SystemRoot", machine_get().windows_folder.c_str());
    SetEnvironmentVariableW(L"windir", machine_get().windows_folder.c_str());
    equal = play_all("files", sequences, seed, [&] { return play_files(memory, on_disk); });
    equal =
        play_all("registry", sequences, seed, [&] { return play_registry(ours, real); }) && equal;
    equal = play_all("environment", sequences, seed, play_environment) && equal;
    return equal ? 0 : 1;
}
