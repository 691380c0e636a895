/* Checks of the registry. All keys are volatile and below one of their own, which goes at the end. */
#include "conformance.h"

#include <cstring>

#define OWN_KEY L"SOFTWARE\\conformance_check"
static constexpr int UNTOUCHED = 0x5a5a5a5a;

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
    HKEY key = no_handle<HKEY>();

    run.gives("RegOpenKeyExW", "a key that is none", RegOpenKeyExW(own, L"none", 0, KEY_READ, &key),
              {ERROR_FILE_NOT_FOUND});
    run.holds("RegOpenKeyExW", "a failure sets the handle to NULL", key == nullptr, OBSERVED);
    run.gives("RegOpenKeyExW", "a leading backslash", open_and_close(run.root, L"\\SOFTWARE"),
              {ERROR_BAD_PATHNAME}, OBSERVED);
    run.gives("RegOpenKeyExW", "a trailing backslash", open_and_close(run.root, OWN_KEY L"\\"), {0},
              OBSERVED);
    run.gives("RegOpenKeyExW", "another case",
              open_and_close(run.root, L"software\\CONFORMANCE_check"), {0});
    run.gives("RegOpenKeyExW", "no result", RegOpenKeyExW(own, L"", 0, KEY_READ, nullptr),
              {ERROR_INVALID_PARAMETER}, OBSERVED);
    run.gives("RegOpenKeyExW", "an invalid handle", open_and_close(no_handle<HKEY>(), L"any"),
              {ERROR_INVALID_HANDLE});
    run.gives("RegOpenKeyExW", "the handle -1",
              open_and_close(reinterpret_cast<HKEY>(static_cast<intptr_t>(-1)), L"any"), {}, OPEN);
    run.gives("RegOpenKeyExW", "both views",
              open_and_close(own, L"", KEY_READ | KEY_WOW64_32KEY | KEY_WOW64_64KEY),
              {ERROR_INVALID_PARAMETER, ERROR_SUCCESS});
}

static void check_creating(conformance &run, HKEY own)
{
    HKEY child = nullptr, other = nullptr;
    DWORD disposition = 0;

    run.gives("RegCreateKeyExW", "a new key", create(own, L"child", &child, &disposition), {0});
    run.gives("RegCreateKeyExW", "a new key: disposition", disposition, {REG_CREATED_NEW_KEY});
    run.gives("RegCreateKeyExW", "a key that exists", create(own, L"CHILD\\", &other, &disposition),
              {0});
    run.gives("RegCreateKeyExW", "a key that exists: disposition", disposition,
              {REG_OPENED_EXISTING_KEY});
    RegCloseKey(other);
    run.gives("RegCreateKeyExW", "a lasting key below a volatile one",
              create(own, L"lasting", &other, nullptr, 0), {ERROR_CHILD_MUST_BE_VOLATILE});
    run.gives("RegCreateKeyExW", "a leading backslash", create(own, L"\\child", &other),
              {ERROR_BAD_PATHNAME}, OBSERVED);
    run.gives("RegCreateKeyExW", "reserved is not 0",
              RegCreateKeyExW(own, L"child", 1, nullptr, REG_OPTION_VOLATILE, KEY_READ, nullptr,
                              &other, nullptr),
              {ERROR_INVALID_PARAMETER});
    run.gives("RegCreateKeyExW", "unknown options",
              create(own, L"child", &other, nullptr, 0x40000000), {ERROR_INVALID_PARAMETER});
    run.gives("RegCreateKeyExW", "directly below HKEY_LOCAL_MACHINE",
              create(run.system_root, L"conformance_check", &other),
              {ERROR_INVALID_PARAMETER, ERROR_ACCESS_DENIED}, OBSERVED);
    RegDeleteKeyW(run.system_root, L"conformance_check"); /* where it was created */
    RegCloseKey(child);
    run.gives("RegOpenKeyExW", "through a handle with KEY_SET_VALUE only",
              RegOpenKeyExW(own, L"child", 0, KEY_SET_VALUE, &child), {0});
    run.gives("RegCreateKeyExW", "below a handle without KEY_CREATE_SUB_KEY",
              create(child, L"grandchild", &other), {0}, OBSERVED);
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
    run.gives("RegQueryValueExW", "a value that is none",
              RegQueryValueExW(own, L"none", nullptr, nullptr, nullptr, nullptr),
              {ERROR_FILE_NOT_FOUND});
    run.gives("RegQueryValueExW", "the last error stays", GetLastError(), {UNTOUCHED}, OBSERVED);
    run.gives(
        "RegQueryValueExW", "data without a size",
        RegQueryValueExW(own, L"none", nullptr, nullptr, reinterpret_cast<BYTE *>(buffer), nullptr),
        {ERROR_INVALID_PARAMETER});
    RegOpenKeyExW(own, L"child", 0, KEY_SET_VALUE, &weak);
    run.gives("RegQueryValueExW", "a handle without KEY_QUERY_VALUE",
              RegQueryValueExW(weak, L"none", nullptr, nullptr, nullptr, nullptr),
              {ERROR_ACCESS_DENIED});
    RegCloseKey(weak);
    run.gives("RegQueryValueExW", "an invalid handle",
              RegQueryValueExW(no_handle<HKEY>(), L"none", nullptr, nullptr, nullptr, nullptr),
              {ERROR_INVALID_HANDLE});
    if (RegOpenKeyExW(run.system_root, L"SYSTEM\\CurrentControlSet\\Control\\CrashControl", 0,
                      KEY_READ, &weak) != ERROR_SUCCESS)
        return;
    bytes = sizeof(text[0]);
    run.gives("RegQueryValueExW", "a buffer that is too small",
              RegQueryValueExW(weak, L"DumpFile", nullptr, &type, reinterpret_cast<BYTE *>(buffer),
                               &bytes),
              {ERROR_MORE_DATA, ERROR_FILE_NOT_FOUND});
    run.holds("RegQueryValueExW", "a buffer that is too small: the size is returned",
              type == 0 || bytes > sizeof(text[0]));
    RegCloseKey(weak);
}

static void check_deleting(conformance &run, HKEY own)
{
    HKEY child = nullptr, deleted = nullptr;

    run.gives("RegDeleteKeyW", "a key with keys", RegDeleteKeyW(own, L"child"),
              {ERROR_ACCESS_DENIED});
    run.gives("RegDeleteKeyW", "a key that is none", RegDeleteKeyW(own, L"none"),
              {ERROR_FILE_NOT_FOUND});
    run.gives("RegDeleteKeyW", "no name", RegDeleteKeyW(own, nullptr), {ERROR_INVALID_PARAMETER});
    RegOpenKeyExW(own, L"child\\grandchild", 0, KEY_READ, &deleted);
    RegOpenKeyExW(own, L"child", 0, KEY_SET_VALUE, &child);
    run.gives("RegDeleteKeyW", "below a handle with any access",
              RegDeleteKeyW(child, L"grandchild"), {0}, OBSERVED);
    run.gives("RegQueryValueExW", "a deleted key",
              RegQueryValueExW(deleted, L"none", nullptr, nullptr, nullptr, nullptr),
              {ERROR_KEY_DELETED}, OBSERVED);
    run.gives("RegOpenKeyExW", "below a deleted key", open_and_close(deleted, L"any"),
              {ERROR_KEY_DELETED}, OBSERVED);
    RegCloseKey(deleted);
    RegCloseKey(child);
    run.gives("RegDeleteKeyW", "with a trailing backslash", RegDeleteKeyW(own, L"child\\"), {0},
              OBSERVED);
    run.gives("RegDeleteKeyW", "an empty name deletes the key itself", RegDeleteKeyW(own, L""), {0},
              OBSERVED);
    run.gives("RegCloseKey", "a deleted key", RegCloseKey(own), {0});
}

void check_registry(conformance &run)
{
    HKEY own = nullptr;

    run.gives("RegCreateKeyExW", "the own key", create(run.root, OWN_KEY, &own), {0});
    check_opening(run, own);
    check_creating(run, own);
    check_querying(run, own);
    check_deleting(run, own);
    run.gives("RegCloseKey", "an invalid handle", RegCloseKey(no_handle<HKEY>()),
              {ERROR_INVALID_HANDLE});
    run.gives("RegCloseKey", "a predefined key", RegCloseKey(run.root), {0});
}
