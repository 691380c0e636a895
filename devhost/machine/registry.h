/* The machine's HKEY_LOCAL_MACHINE. */
#ifndef DEVHOST_MACHINE_REGISTRY_H
#define DEVHOST_MACHINE_REGISTRY_H

#include <windows.h>

#include <string>

/* Values of HKEY_LOCAL_MACHINE; data as REG_SZ bytes and so on. Keys are made; throws devhost_error
 * below a volatile one. */
void machine_set_value(const std::wstring &key, const std::wstring &name, DWORD type,
                       const std::string &data);
void machine_delete_value(const std::wstring &key, const std::wstring &name);
void machine_delete_key(const std::wstring &key);
bool machine_key_exists(const std::wstring &key);
/* The value as text: a string unchanged, a number in decimal. Result: whether it exists. */
bool machine_get_value(const std::wstring &key, const std::wstring &name, std::string *text);

static constexpr int MACHINE_BIAS_MOST = 900; /* no zone is more minutes from UTC */
/* The rules of a time zone by its Windows name, "Tokyo Standard Time", from the real registry, or by its
 * offset, "+09:00", "-3:30". Result: whether there is one. */
bool machine_time_zone(const std::wstring &name, TIME_ZONE_INFORMATION *zone);

#endif
