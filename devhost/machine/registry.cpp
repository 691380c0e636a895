/*
 * The machine's HKEY_LOCAL_MACHINE, kept in this process: the real registry is neither read nor
 * changed, and a restart of Windows drops the volatile keys. Plug-in and platform reach it through
 * their imports.
 */
#include "registry.h"

#include <algorithm>
#include <map>
#include <memory>
#include <string_view>

#include "../base/text.h"
#include "../calls/imports.h"
#include "../calls/stand_in.h"
#include "machine_internal.h"

struct registry_value {
    DWORD type;
    std::string data;
};

/* Names are in lower case: Windows ignores the case of names, and no stand-in enumerates them. */
struct registry_key {
    bool is_volatile = false;
    bool deleted = false; /* a handle may outlive it */
    std::map<std::wstring, registry_value> values;
    std::map<std::wstring, std::shared_ptr<registry_key>, std::less<>> keys;
};

static std::shared_ptr<registry_key> s_root;

struct open_key {
    std::shared_ptr<registry_key> key;
    REGSAM access;
};

static std::map<HKEY, open_key> s_open;

static constexpr DWORD WOW64_VIEWS = KEY_WOW64_32KEY | KEY_WOW64_64KEY;
static constexpr DWORD QUERY_RIGHTS =
    KEY_QUERY_VALUE | GENERIC_READ | GENERIC_ALL | MAXIMUM_ALLOWED;
static constexpr DWORD OPEN_OPTIONS = REG_OPTION_OPEN_LINK;
static constexpr DWORD CREATE_OPTIONS =
    REG_OPTION_VOLATILE | REG_OPTION_BACKUP_RESTORE | REG_OPTION_OPEN_LINK;

/* Removes the first name of a path and returns it. */
static std::wstring_view take_name(std::wstring_view *path)
{
    const size_t end = std::min(path->find(L'\\'), path->size());
    const std::wstring_view name = path->substr(0, end);

    path->remove_prefix(std::min(end + 1, path->size()));
    return name;
}

static std::shared_ptr<registry_key> find_key(std::shared_ptr<registry_key> key,
                                              const std::wstring &given)
{
    const std::wstring lower = text_lower(given);
    std::wstring_view path = lower;

    while (key != nullptr && !path.empty()) {
        auto child = key->keys.find(take_name(&path));

        key = child == key->keys.end() ? nullptr : child->second;
    }
    return key;
}

/* Creates the missing keys of a path. NULL: a key that is not volatile cannot be created below a
 * volatile one. */
static std::shared_ptr<registry_key> make_key(std::shared_ptr<registry_key> key,
                                              const std::wstring &given, bool is_volatile,
                                              bool *made)
{
    const std::wstring lower = text_lower(given);
    std::wstring_view path = lower;

    while (!path.empty()) {
        const std::wstring_view name = take_name(&path);
        auto child = key->keys.find(name);

        *made = child == key->keys.end();
        if (*made) {
            if (key->is_volatile && !is_volatile)
                return nullptr;
            child = key->keys.emplace(name, std::make_shared<registry_key>()).first;
            child->second->is_volatile = is_volatile;
        }
        key = child->second;
    }
    return key;
}

/* The key of a handle; NULL and the error when it has none. */
static std::shared_ptr<registry_key> key_of(HKEY handle, LONG *error)
{
    auto open = s_open.find(handle);

    *error = ERROR_INVALID_HANDLE;
    if (handle == HKEY_LOCAL_MACHINE)
        return s_root;
    if (open == s_open.end())
        return nullptr;
    *error = ERROR_KEY_DELETED;
    return open->second.key->deleted ? nullptr : open->second.key;
}

/* A path as Windows takes it: without trailing backslashes, in the view of the caller. */
static LONG normalize_path(HKEY parent, const wchar_t *given, REGSAM access, std::wstring *path)
{
    static const std::wstring software = L"software", wow = L"\\wow6432node";

    *path = given;
    if (given[0] == L'\\')
        return ERROR_BAD_PATHNAME;
    if ((access & WOW64_VIEWS) == WOW64_VIEWS)
        return ERROR_INVALID_PARAMETER;
    while (!path->empty() && path->back() == L'\\')
        path->pop_back();
    if ((access & KEY_WOW64_32KEY) == 0 || parent != HKEY_LOCAL_MACHINE)
        return ERROR_SUCCESS;
    const std::wstring lower = text_lower(*path) + L"\\";
    if (lower.rfind(software + L"\\", 0) == 0 && lower.rfind(software + wow + L"\\", 0) != 0)
        path->insert(software.size(), wow);
    return ERROR_SUCCESS;
}

static HKEY open_handle(const std::shared_ptr<registry_key> &key, REGSAM access)
{
    HKEY handle = reinterpret_cast<HKEY>(stand_in_new_handle());

    s_open[handle] = {key, access};
    return handle;
}

static LONG WINAPI stand_in_RegOpenKeyExW(HKEY parent, const wchar_t *given, DWORD options,
                                          REGSAM access, HKEY *key)
{
    std::wstring path;
    LONG error;

    if (key == nullptr)
        return ERROR_INVALID_PARAMETER;
    *key = nullptr;
    if ((options & ~static_cast<DWORD>(OPEN_OPTIONS)) != 0)
        return ERROR_INVALID_PARAMETER;
    std::shared_ptr<registry_key> from = key_of(parent, &error);
    if (from == nullptr)
        return error;
    error = normalize_path(parent, given != nullptr ? given : L"", access, &path);
    if (error != ERROR_SUCCESS)
        return error;
    from = find_key(from, path);
    if (from == nullptr)
        return ERROR_FILE_NOT_FOUND;
    *key = open_handle(from, access);
    return ERROR_SUCCESS;
}

/* Opens or creates the key of a path. Windows creates no key directly below the root. */
static LONG create_key(HKEY parent, const std::shared_ptr<registry_key> &from,
                       const std::wstring &path, bool is_volatile,
                       std::shared_ptr<registry_key> *key, bool *made)
{
    *made = false;
    if (parent == HKEY_LOCAL_MACHINE && find_key(from, path.substr(0, path.find(L'\\'))) == nullptr)
        return ERROR_INVALID_PARAMETER;
    *key = make_key(from, path, is_volatile, made);
    return *key != nullptr ? ERROR_SUCCESS : ERROR_CHILD_MUST_BE_VOLATILE;
}

static LONG WINAPI stand_in_RegCreateKeyExW(HKEY parent, const wchar_t *given, DWORD reserved,
                                            wchar_t *, DWORD options, REGSAM access,
                                            SECURITY_ATTRIBUTES *, HKEY *key, DWORD *disposition)
{
    std::shared_ptr<registry_key> made_key;
    std::wstring path;
    bool made;
    LONG error;

    if (key == nullptr)
        return ERROR_INVALID_PARAMETER;
    *key = nullptr;
    if (given == nullptr || reserved != 0 || (options & ~static_cast<DWORD>(CREATE_OPTIONS)) != 0)
        return ERROR_INVALID_PARAMETER;
    std::shared_ptr<registry_key> from = key_of(parent, &error);
    if (from == nullptr)
        return error;
    error = normalize_path(parent, given, access, &path);
    if (error == ERROR_SUCCESS)
        error =
            create_key(parent, from, path, (options & REG_OPTION_VOLATILE) != 0, &made_key, &made);
    if (error != ERROR_SUCCESS)
        return error;
    *key = open_handle(made_key, access);
    if (disposition != nullptr)
        *disposition = made ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    return ERROR_SUCCESS;
}

/* Removes a key; one that has keys stays unless they go with it. */
static LONG delete_key(const std::shared_ptr<registry_key> &from, const std::wstring &path,
                       bool with_keys)
{
    size_t last = path.rfind(L'\\');
    std::shared_ptr<registry_key> parent =
        last == std::wstring::npos ? from : find_key(from, path.substr(0, last));
    std::wstring name = text_lower(last == std::wstring::npos ? path : path.substr(last + 1));

    if (parent == nullptr || parent->keys.count(name) == 0)
        return ERROR_FILE_NOT_FOUND;
    if (!with_keys && !parent->keys[name]->keys.empty())
        return ERROR_ACCESS_DENIED;
    parent->keys[name]->deleted = true;
    parent->keys.erase(name);
    return ERROR_SUCCESS;
}

/* Removes the key that a handle was opened for. */
static LONG delete_own_key(registry_key &below, const std::shared_ptr<registry_key> &key)
{
    for (auto child = below.keys.begin(); child != below.keys.end(); child++) {
        if (child->second == key) {
            if (!key->keys.empty())
                return ERROR_ACCESS_DENIED;
            key->deleted = true;
            below.keys.erase(child);
            return ERROR_SUCCESS;
        }
        if (delete_own_key(*child->second, key) == ERROR_SUCCESS)
            return ERROR_SUCCESS;
    }
    return ERROR_ACCESS_DENIED;
}

static LONG WINAPI stand_in_RegDeleteKeyW(HKEY parent, const wchar_t *given)
{
    std::wstring path;
    LONG error;

    if (given == nullptr)
        return ERROR_INVALID_PARAMETER;
    std::shared_ptr<registry_key> from = key_of(parent, &error);
    if (from == nullptr)
        return error;
    error = normalize_path(parent, given, 0, &path);
    if (error != ERROR_SUCCESS)
        return error;
    return path.empty() ? delete_own_key(*s_root, from) : delete_key(from, path, false);
}

/* Copies a value as Windows does: the size is set in any case, the bytes only when all fit. */
static LONG copy_value(const registry_value &value, DWORD *type, void *data, DWORD *bytes)
{
    DWORD size = static_cast<DWORD>(value.data.size()), capacity = bytes != nullptr ? *bytes : 0;

    if (type != nullptr)
        *type = value.type;
    if (bytes != nullptr)
        *bytes = size;
    if (data == nullptr)
        return ERROR_SUCCESS;
    if (size > capacity)
        return ERROR_MORE_DATA;
    memcpy(data, value.data.data(), size);
    return ERROR_SUCCESS;
}

static LONG WINAPI stand_in_RegQueryValueExW(HKEY handle, const wchar_t *name, DWORD *reserved,
                                             DWORD *type, BYTE *data, DWORD *bytes)
{
    LONG error;
    std::shared_ptr<registry_key> key;

    if (reserved != nullptr || (data != nullptr && bytes == nullptr))
        return ERROR_INVALID_PARAMETER;
    key = key_of(handle, &error);
    if (key == nullptr)
        return error;
    if (handle != HKEY_LOCAL_MACHINE && (s_open[handle].access & QUERY_RIGHTS) == 0)
        return ERROR_ACCESS_DENIED;
    auto value = key->values.find(text_lower(std::wstring(name != nullptr ? name : L"")));
    return value == key->values.end() ? ERROR_FILE_NOT_FOUND
                                      : copy_value(value->second, type, data, bytes);
}

static LONG WINAPI stand_in_RegCloseKey(HKEY handle)
{
    return s_open.erase(handle) != 0 || handle == HKEY_LOCAL_MACHINE ? ERROR_SUCCESS
                                                                     : ERROR_INVALID_HANDLE;
}

static const stand_in_row s_stand_ins[] = {
    STAND_IN(RegOpenKeyExW),    STAND_IN(RegCreateKeyExW), STAND_IN(RegDeleteKeyW),
    STAND_IN(RegQueryValueExW), STAND_IN(RegCloseKey),
};

void *machine_registry_stand_in(const char *name)
{
    return stand_in_find(s_stand_ins, name);
}

/* The platform stays loaded while the plug-in comes and goes. */
static void redirect_platform(void)
{
    imports_each(GetModuleHandleW(L"liboxnibase.dll"),
                 [](const std::string &, const char *name, void **entry) {
                     if (void *function = machine_registry_stand_in(name))
                         imports_redirect(entry, function);
                 });
}

void machine_open_registry(void)
{
    if (s_root == nullptr)
        redirect_platform();
    s_root = std::make_shared<registry_key>();
    for (const wchar_t *hive : {L"hardware", L"sam", L"security", L"software", L"system"})
        s_root->keys[hive] = std::make_shared<registry_key>();
    s_open.clear();
}

static void remove_volatile(registry_key &key)
{
    for (auto child = key.keys.begin(); child != key.keys.end();) {
        if (child->second->is_volatile) {
            child->second->deleted = true;
            child = key.keys.erase(child);
        } else {
            remove_volatile(*child->second);
            child++;
        }
    }
}

void machine_remove_volatile_keys(void)
{
    remove_volatile(*s_root);
}

void machine_set_value(const std::wstring &key, const std::wstring &name, DWORD type,
                       const std::string &data)
{
    bool made;
    std::shared_ptr<registry_key> open = make_key(s_root, key, false, &made);

    if (open == nullptr)
        throw devhost_error(EXIT_BAD_CALL, text_narrow(key) + ": lies below a volatile key");
    open->values[text_lower(name)] = {type, data};
}

void machine_delete_value(const std::wstring &key, const std::wstring &name)
{
    std::shared_ptr<registry_key> open = find_key(s_root, key);

    if (open != nullptr)
        open->values.erase(text_lower(name));
}

void machine_delete_key(const std::wstring &key)
{
    (void)delete_key(s_root, key, true);
}

bool machine_key_exists(const std::wstring &key)
{
    return find_key(s_root, key) != nullptr;
}

bool machine_get_value(const std::wstring &key, const std::wstring &name, std::string *text)
{
    std::shared_ptr<registry_key> open = find_key(s_root, key);

    if (open == nullptr || open->values.count(text_lower(name)) == 0)
        return false;
    const registry_value &value = open->values[text_lower(name)];
    std::string data = value.data + std::string(sizeof(uint64_t), '\0'); /* always terminated */
    if (value.type == REG_SZ || value.type == REG_EXPAND_SZ) {
        std::wstring wide(data.size() / sizeof(wchar_t), L'\0');

        memcpy(&wide[0], data.data(), wide.size() * sizeof(wchar_t));
        *text = text_narrow(wide.c_str());
    } else {
        uint64_t number = 0;

        memcpy(&number, data.data(), sizeof(number));
        *text = text_format("%llu", number);
    }
    return true;
}

/* The TZI value of a zone's key (REG_TZI_FORMAT). */
struct registry_zone {
    LONG bias;
    LONG standard_bias;
    LONG daylight_bias;
    SYSTEMTIME standard_date;
    SYSTEMTIME daylight_date;
};
static_assert(sizeof(registry_zone) == 44, "REG_TZI_FORMAT");

/* "+9", "-03:30"; in minutes that local time is behind UTC. */
static bool parse_offset(const std::string &text, LONG *bias)
{
    unsigned hours, minutes = 0;
    char sign, rest;
    const int fields = sscanf(text.c_str(), "%c%2u:%2u%c", &sign, &hours, &minutes, &rest);

    if ((fields != 2 && fields != 3) || (sign != '+' && sign != '-') || minutes > 59 ||
        hours * 60 + minutes > MACHINE_BIAS_MOST || (fields == 2 && text.back() == ':'))
        return false;
    *bias = static_cast<LONG>(hours * 60 + minutes) * (sign == '+' ? -1 : 1);
    return true;
}

bool machine_time_zone(const std::wstring &name, TIME_ZONE_INFORMATION *zone)
{
    static std::map<std::wstring, registry_zone> known; /* long runs repeat a few zones */
    std::wstring path = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Time Zones\\" + name;
    registry_zone rules;
    DWORD bytes = sizeof(rules);

    ZeroMemory(zone, sizeof(*zone));
    if (name == L"UTC" || parse_offset(text_narrow(name), &zone->Bias))
        return true;
    if (known.count(name) == 0) {
        if (RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), L"TZI", RRF_RT_REG_BINARY, nullptr,
                         &rules, &bytes) != ERROR_SUCCESS ||
            bytes != sizeof(rules))
            return false;
        known[name] = rules;
    }
    rules = known[name];
    zone->Bias = rules.bias;
    zone->StandardBias = rules.standard_bias;
    zone->DaylightBias = rules.daylight_bias;
    zone->StandardDate = rules.standard_date;
    zone->DaylightDate = rules.daylight_date;
    return true;
}
