/* Checks of the registry. All keys are volatile and below one of their own, which goes at the end. */
#include "conformance.h"

#include <cstring>

#define OWN_KEY L"SOFTWARE\\conformance_check"
static constexpr int UNTOUCHED = 0x5a5a5a5a;

static HKEY marked_key(void)
{
    return reinterpret_cast<HKEY>(static_cast<intptr_t>(UNTOUCHED));
}

static LONG create(HKEY parent, const wchar_t *path, HKEY *key, DWORD *disposition = nullptr,
                   DWORD options = REG_OPTION_VOLATILE)
{
    return RegCreateKeyExW(parent, path, 0, nullptr, options, KEY_ALL_ACCESS, nullptr, key,
                           disposition);
}

static LONG open_and_close(HKEY parent, const wchar_t *path, REGSAM access = KEY_READ)
{
    HKEY key = nullptr;
    const LONG error = RegOpenKeyExW(parent, path, 0, access, &key);

    if (error == ERROR_SUCCESS)
        RegCloseKey(key);
    return error;
}

static void check_opening(conformance &run, HKEY own)
{
    HKEY key = marked_key();

    conform(run, "RegOpenKeyExW", "a key that is none",
            static_cast<uint64_t>(RegOpenKeyExW(own, L"none", 0, KEY_READ, &key)),
            {ERROR_FILE_NOT_FOUND});
    conform(run, "RegOpenKeyExW", "a failure sets the handle to NULL", key == nullptr, {1},
            OBSERVED);
    conform(run, "RegOpenKeyExW", "a leading backslash",
            static_cast<uint64_t>(open_and_close(run.root, L"\\SOFTWARE")), {ERROR_BAD_PATHNAME},
            OBSERVED);
    conform(run, "RegOpenKeyExW", "a trailing backslash",
            static_cast<uint64_t>(open_and_close(run.root, OWN_KEY L"\\")), {0}, OBSERVED);
    conform(run, "RegOpenKeyExW", "another case",
            static_cast<uint64_t>(open_and_close(run.root, L"software\\CONFORMANCE_check")), {0});
    conform(run, "RegOpenKeyExW", "no result",
            static_cast<uint64_t>(RegOpenKeyExW(own, L"", 0, KEY_READ, nullptr)),
            {ERROR_INVALID_PARAMETER}, OBSERVED);
    conform(run, "RegOpenKeyExW", "an invalid handle",
            static_cast<uint64_t>(open_and_close(marked_key(), L"any")), {ERROR_INVALID_HANDLE});
    conform(run, "RegOpenKeyExW", "the handle -1",
            static_cast<uint64_t>(
                open_and_close(reinterpret_cast<HKEY>(static_cast<intptr_t>(-1)), L"any")),
            {}, OPEN);
    conform(run, "RegOpenKeyExW", "both views",
            static_cast<uint64_t>(
                open_and_close(own, L"", KEY_READ | KEY_WOW64_32KEY | KEY_WOW64_64KEY)),
            {ERROR_INVALID_PARAMETER, ERROR_SUCCESS});
}

static void check_creating(conformance &run, HKEY own)
{
    HKEY child = nullptr, other = nullptr;
    DWORD disposition = 0;

    conform(run, "RegCreateKeyExW", "a new key",
            static_cast<uint64_t>(create(own, L"child", &child, &disposition)), {0});
    conform(run, "RegCreateKeyExW", "a new key: disposition", disposition, {REG_CREATED_NEW_KEY});
    conform(run, "RegCreateKeyExW", "a key that exists",
            static_cast<uint64_t>(create(own, L"CHILD\\", &other, &disposition)), {0});
    conform(run, "RegCreateKeyExW", "a key that exists: disposition", disposition,
            {REG_OPENED_EXISTING_KEY});
    RegCloseKey(other);
    conform(run, "RegCreateKeyExW", "a lasting key below a volatile one",
            static_cast<uint64_t>(create(own, L"lasting", &other, nullptr, 0)),
            {ERROR_CHILD_MUST_BE_VOLATILE});
    conform(run, "RegCreateKeyExW", "a leading backslash",
            static_cast<uint64_t>(create(own, L"\\child", &other)), {ERROR_BAD_PATHNAME}, OBSERVED);
    conform(run, "RegCreateKeyExW", "reserved is not 0",
            static_cast<uint64_t>(RegCreateKeyExW(own, L"child", 1, nullptr, REG_OPTION_VOLATILE,
                                                  KEY_READ, nullptr, &other, nullptr)),
            {ERROR_INVALID_PARAMETER});
    conform(run, "RegCreateKeyExW", "unknown options",
            static_cast<uint64_t>(create(own, L"child", &other, nullptr, 0x40000000)),
            {ERROR_INVALID_PARAMETER});
    conform(run, "RegCreateKeyExW", "directly below HKEY_LOCAL_MACHINE",
            static_cast<uint64_t>(create(run.system_root, L"conformance_check", &other)),
            {ERROR_INVALID_PARAMETER, ERROR_ACCESS_DENIED}, OBSERVED);
    RegDeleteKeyW(run.system_root, L"conformance_check"); /* where it was created */
    RegCloseKey(child);
    conform(run, "RegOpenKeyExW", "through a handle with KEY_SET_VALUE only",
            static_cast<uint64_t>(RegOpenKeyExW(own, L"child", 0, KEY_SET_VALUE, &child)), {0});
    conform(run, "RegCreateKeyExW", "below a handle without KEY_CREATE_SUB_KEY",
            static_cast<uint64_t>(create(child, L"grandchild", &other)), {0}, OBSERVED);
    RegCloseKey(other);
    RegCloseKey(child);
}

static void check_querying(conformance &run, HKEY own)
{
    static const wchar_t text[] = L"text";
    wchar_t buffer[8] = {};
    DWORD bytes = sizeof(buffer), type = 0;
    HKEY weak = nullptr;

    SetLastError(UNTOUCHED);
    conform(
        run, "RegQueryValueExW", "a value that is none",
        static_cast<uint64_t>(RegQueryValueExW(own, L"none", nullptr, nullptr, nullptr, nullptr)),
        {ERROR_FILE_NOT_FOUND});
    conform(run, "RegQueryValueExW", "the last error stays", GetLastError(), {UNTOUCHED}, OBSERVED);
    conform(run, "RegQueryValueExW", "data without a size",
            static_cast<uint64_t>(RegQueryValueExW(own, L"none", nullptr, nullptr,
                                                   reinterpret_cast<BYTE *>(buffer), nullptr)),
            {ERROR_INVALID_PARAMETER});
    RegOpenKeyExW(own, L"child", 0, KEY_SET_VALUE, &weak);
    conform(
        run, "RegQueryValueExW", "a handle without KEY_QUERY_VALUE",
        static_cast<uint64_t>(RegQueryValueExW(weak, L"none", nullptr, nullptr, nullptr, nullptr)),
        {ERROR_ACCESS_DENIED});
    RegCloseKey(weak);
    conform(run, "RegQueryValueExW", "an invalid handle",
            static_cast<uint64_t>(
                RegQueryValueExW(marked_key(), L"none", nullptr, nullptr, nullptr, nullptr)),
            {ERROR_INVALID_HANDLE});
    if (RegOpenKeyExW(run.system_root, L"SYSTEM\\CurrentControlSet\\Control\\CrashControl", 0,
                      KEY_READ, &weak) != ERROR_SUCCESS)
        return;
    bytes = sizeof(text[0]);
    conform(run, "RegQueryValueExW", "a buffer that is too small",
            static_cast<uint64_t>(RegQueryValueExW(weak, L"DumpFile", nullptr, &type,
                                                   reinterpret_cast<BYTE *>(buffer), &bytes)),
            {ERROR_MORE_DATA, ERROR_FILE_NOT_FOUND});
    conform(run, "RegQueryValueExW", "a buffer that is too small: the size is returned",
            type == 0 || bytes > sizeof(text[0]), {1});
    RegCloseKey(weak);
}

static void check_deleting(conformance &run, HKEY own)
{
    HKEY child = nullptr, deleted = nullptr;

    conform(run, "RegDeleteKeyW", "a key with keys",
            static_cast<uint64_t>(RegDeleteKeyW(own, L"child")), {ERROR_ACCESS_DENIED});
    conform(run, "RegDeleteKeyW", "a key that is none",
            static_cast<uint64_t>(RegDeleteKeyW(own, L"none")), {ERROR_FILE_NOT_FOUND});
    conform(run, "RegDeleteKeyW", "no name", static_cast<uint64_t>(RegDeleteKeyW(own, nullptr)),
            {ERROR_INVALID_PARAMETER});
    RegOpenKeyExW(own, L"child\\grandchild", 0, KEY_READ, &deleted);
    RegOpenKeyExW(own, L"child", 0, KEY_SET_VALUE, &child);
    conform(run, "RegDeleteKeyW", "below a handle with any access",
            static_cast<uint64_t>(RegDeleteKeyW(child, L"grandchild")), {0}, OBSERVED);
    conform(run, "RegQueryValueExW", "a deleted key",
            static_cast<uint64_t>(
                RegQueryValueExW(deleted, L"none", nullptr, nullptr, nullptr, nullptr)),
            {ERROR_KEY_DELETED}, OBSERVED);
    conform(run, "RegOpenKeyExW", "below a deleted key",
            static_cast<uint64_t>(open_and_close(deleted, L"any")), {ERROR_KEY_DELETED}, OBSERVED);
    RegCloseKey(deleted);
    RegCloseKey(child);
    conform(run, "RegDeleteKeyW", "with a trailing backslash",
            static_cast<uint64_t>(RegDeleteKeyW(own, L"child\\")), {0}, OBSERVED);
    conform(run, "RegDeleteKeyW", "an empty name deletes the key itself",
            static_cast<uint64_t>(RegDeleteKeyW(own, L"")), {0}, OBSERVED);
    conform(run, "RegCloseKey", "a deleted key", static_cast<uint64_t>(RegCloseKey(own)), {0});
}

void check_registry(conformance &run)
{
    HKEY own = nullptr;

    conform(run, "RegCreateKeyExW", "the own key",
            static_cast<uint64_t>(create(run.root, OWN_KEY, &own)), {0});
    check_opening(run, own);
    check_creating(run, own);
    check_querying(run, own);
    check_deleting(run, own);
    conform(run, "RegCloseKey", "an invalid handle",
            static_cast<uint64_t>(RegCloseKey(marked_key())), {ERROR_INVALID_HANDLE});
    conform(run, "RegCloseKey", "a predefined key", static_cast<uint64_t>(RegCloseKey(run.root)),
            {0});
}
