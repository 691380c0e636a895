/*
 * The machine's registry: a volatile key of this process that it sees as HKEY_LOCAL_MACHINE, so
 * that nothing of the real one is read or changed.
 */
#include "machine.h"

#include "../text.h"
#include "stand_in.h"

static HKEY s_root;
static std::wstring s_root_path;
static bool s_has_volatile; /* spares a look at every key when no plug-in made one */

/* Below a volatile key Windows makes volatile keys only. Which ones the plug-in wanted so is kept:
 * those alone are gone after a restart of Windows. */
static LONG WINAPI stand_in_RegCreateKeyExW(HKEY parent, const wchar_t *path, DWORD reserved,
                                            wchar_t *key_class, DWORD options, REGSAM access,
                                            SECURITY_ATTRIBUTES *security, HKEY *key,
                                            DWORD *disposition)
{
    DWORD made = 0;
    LONG error = RegCreateKeyExW(parent, path, reserved, key_class, options | REG_OPTION_VOLATILE,
                                 access, security, key, &made);

    if (disposition != NULL)
        *disposition = made;
    if (error == ERROR_SUCCESS && made == REG_CREATED_NEW_KEY &&
        (options & REG_OPTION_VOLATILE) != 0) {
        s_has_volatile = true;
        /* Marked by a value that no plug-in reads; its path is not known from the handle. */
        DWORD one = 1;

        RegSetValueExW(*key, L"oxni_devhost_volatile", 0, REG_DWORD,
                       reinterpret_cast<const BYTE *>(&one), sizeof(one));
    }
    return error;
}

/* Removes the marked keys below an open one. */
static void remove_volatile(HKEY key)
{
    for (DWORD index = 0;;) {
        wchar_t name[256];
        DWORD chars = ARRAYSIZE(name);
        HKEY child;
        bool marked;

        if (RegEnumKeyExW(key, index, name, &chars, NULL, NULL, NULL, NULL) != ERROR_SUCCESS)
            return;
        if (RegOpenKeyExW(key, name, 0, KEY_ALL_ACCESS, &child) != ERROR_SUCCESS) {
            index++;
            continue;
        }
        marked = RegQueryValueExW(child, L"oxni_devhost_volatile", NULL, NULL, NULL, NULL) ==
                 ERROR_SUCCESS;
        if (!marked)
            remove_volatile(child);
        RegCloseKey(child);
        if (marked && RegDeleteTreeW(key, name) == ERROR_SUCCESS)
            continue;
        index++;
    }
}

/* An open key below the machine's root, made when make is set; NULL when there is none. */
static HKEY open_key(const std::wstring &path, bool make)
{
    HKEY key = NULL;
    LONG error = make ? RegCreateKeyExW(s_root, path.c_str(), 0, NULL, REG_OPTION_VOLATILE,
                                        KEY_ALL_ACCESS, NULL, &key, NULL)
                      : RegOpenKeyExW(s_root, path.c_str(), 0, KEY_ALL_ACCESS, &key);

    return error == ERROR_SUCCESS ? key : NULL;
}

void machine_open_registry(void)
{
    LONG error;

    s_root_path = text_wide(
        text_format("Software\\oxni_devhost\\%lu-%lu", GetCurrentProcessId(), GetTickCount()));
    error = RegCreateKeyExW(HKEY_CURRENT_USER, s_root_path.c_str(), 0, NULL, REG_OPTION_VOLATILE,
                            KEY_ALL_ACCESS, NULL, &s_root, NULL);
    if (error == ERROR_SUCCESS)
        error = RegOverridePredefKey(HKEY_LOCAL_MACHINE, s_root);
    if (error != ERROR_SUCCESS)
        throw devhost_error(
            EXIT_BAD_CALL,
            text_format("a registry key of the run cannot be made, error %ld", error));
}

void machine_close(void)
{
    if (s_root == NULL)
        return;
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, NULL);
    RegCloseKey(s_root);
    RegDeleteTreeW(HKEY_CURRENT_USER, s_root_path.c_str());
    s_root = NULL;
}

void machine_remove_volatile_keys(void)
{
    if (s_has_volatile)
        remove_volatile(s_root);
    s_has_volatile = false;
}

void machine_set_value(const std::wstring &key, const std::wstring &name, DWORD type,
                       const std::string &data)
{
    HKEY open = open_key(key, true);
    LONG error = open == NULL ? ERROR_BADKEY
                              : RegSetValueExW(open, name.c_str(), 0, type,
                                               reinterpret_cast<const BYTE *>(data.data()),
                                               static_cast<DWORD>(data.size()));

    if (open != NULL)
        RegCloseKey(open);
    if (error != ERROR_SUCCESS)
        throw devhost_error(
            EXIT_BAD_CALL, text_format("registry key %s: value %s cannot be set, error %ld",
                                       text_narrow(key).c_str(), text_narrow(name).c_str(), error));
}

void machine_delete_value(const std::wstring &key, const std::wstring &name)
{
    HKEY open = open_key(key, false);

    if (open == NULL)
        return;
    RegDeleteValueW(open, name.c_str());
    RegCloseKey(open);
}

void machine_delete_key(const std::wstring &key)
{
    RegDeleteTreeW(s_root, key.c_str());
}

bool machine_key_exists(const std::wstring &key)
{
    HKEY open = open_key(key, false);

    if (open != NULL)
        RegCloseKey(open);
    return open != NULL;
}

bool machine_get_value(const std::wstring &key, const std::wstring &name, std::string *text)
{
    HKEY open = open_key(key, false);
    uint64_t buffer[512] = {};
    DWORD type = 0, bytes = sizeof(buffer) - sizeof(wchar_t);
    LONG error;

    if (open == NULL)
        return false;
    error =
        RegQueryValueExW(open, name.c_str(), NULL, &type, reinterpret_cast<BYTE *>(buffer), &bytes);
    RegCloseKey(open);
    if (error != ERROR_SUCCESS)
        return false;
    if (type == REG_SZ || type == REG_EXPAND_SZ)
        *text = text_narrow(reinterpret_cast<wchar_t *>(buffer));
    else
        *text = text_format("%llu", static_cast<unsigned long long>(buffer[0]));
    return true;
}

/* TZI of a zone's key, as Windows' time zone tables have it. */
struct registry_zone {
    LONG bias;
    LONG standard_bias;
    LONG daylight_bias;
    SYSTEMTIME standard_date;
    SYSTEMTIME daylight_date;
};
static_assert(sizeof(registry_zone) == 44, "REG_TZI_FORMAT");

bool machine_time_zone(const std::wstring &name, TIME_ZONE_INFORMATION *zone)
{
    std::wstring path = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Time Zones\\" + name;
    registry_zone rules;
    DWORD bytes = sizeof(rules);
    LONG error;

    RegOverridePredefKey(HKEY_LOCAL_MACHINE, NULL);
    error = RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), L"TZI", RRF_RT_REG_BINARY, NULL, &rules,
                         &bytes);
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, s_root);
    if (error != ERROR_SUCCESS || bytes != sizeof(rules))
        return false;
    ZeroMemory(zone, sizeof(*zone));
    zone->Bias = rules.bias;
    zone->StandardBias = rules.standard_bias;
    zone->DaylightBias = rules.daylight_bias;
    zone->StandardDate = rules.standard_date;
    zone->DaylightDate = rules.daylight_date;
    return true;
}

void *machine_registry_stand_in(const char *name)
{
    static const stand_in_row rows[] = {
        STAND_IN(RegCreateKeyExW),
    };

    return stand_in_find(rows, name);
}
