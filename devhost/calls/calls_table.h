/*
 * The calls of the plug-in, one row each: module, name, how its arguments and its result are shown,
 * how it fails.
 *
 * Letters for a value: d i32, u u32, x hexadecimal u32, U u64, s narrow text, w wide text, h
 * handle, k registry key, t the first privilege of a token and its new state, j JSON, J JSON that a failing call takes over, too, S subscriber, p
 * pointer (null or not), . not shown, v none.
 * Not shown, and set by a failing call: o a text, to empty; n a u32, to 0; N a u32, to 64 KiB where
 * the error says that so much room is needed; O a pointer, to NULL.
 * Failing: B returns 0 and sets the last error; A does so, too, but for ERROR_NOT_ALL_ASSIGNED,
 * which comes with a success; I returns INVALID_HANDLE_VALUE and sets it; E returns the error; M
 * returns -1; Z returns 0 or NULL without an error; - cannot fail.
 */
#ifndef DEVHOST_CALLS_TABLE_H
#define DEVHOST_CALLS_TABLE_H

#include <cstdint>

#include <vector>

struct call_row {
    const char *module;
    const char *name;
    const char *arguments;
    char result;
    char failing;
};

static const struct call_row s_rows[] = {
    {"kernel32.dll",        "CreateFileA",                  "sxx.ux.",          'h', 'I'},
    {"kernel32.dll",        "CreateFileW",                  "wxx.ux.",          'h', 'I'},
    {"kernel32.dll",        "ReadFile",                     "h.u..",            'd', 'B'},
    {"kernel32.dll",        "WriteFile",                    "h.u..",            'd', 'B'},
    {"kernel32.dll",        "GetFileTime",                  "hppp",             'd', 'B'},
    {"kernel32.dll",        "SetFileTime",                  "hppp",             'd', 'B'},
    {"kernel32.dll",        "GetFileInformationByHandle",   "h.",               'd', 'B'},
    {"kernel32.dll",        "FindFirstFileW",               "w.",               'h', 'I'},
    {"kernel32.dll",        "FindNextFileW",                "h.",               'd', 'B'},
    {"kernel32.dll",        "FindClose",                    "h",                'd', '-'},
    {"kernel32.dll",        "DeleteFileW",                  "w",                'd', 'B'},
    {"kernel32.dll",        "CloseHandle",                  "h",                'd', '-'},
    {"kernel32.dll",        "GetWindowsDirectoryW",         ".u",               'u', 'B'},
    {"kernel32.dll",        "ExpandEnvironmentStringsW",    "w.u",              'u', 'B'},
    {"kernel32.dll",        "FileTimeToLocalFileTime",      "..",               'd', 'B'},
    {"kernel32.dll",        "LocalFileTimeToFileTime",      "..",               'd', 'B'},
    {"kernel32.dll",        "FileTimeToSystemTime",         "..",               'd', 'B'},
    {"kernel32.dll",        "SystemTimeToFileTime",         "..",               'd', 'B'},
    {"kernel32.dll",        "MultiByteToWideChar",          "ux.d.d",           'd', 'B'},
    {"kernel32.dll",        "WideCharToMultiByte",          "ux.d.d..",         'd', 'B'},
    {"kernel32.dll",        "GetSystemTime",                ".",                'v', '-'},
    {"kernel32.dll",        "GetTickCount",                 "",                 'u', '-'},
    {"kernel32.dll",        "GetTickCount64",               "",                 'U', '-'},
    {"kernel32.dll",        "GetModuleHandleA",             "s",                'h', 'B'},
    {"kernel32.dll",        "GetProcAddress",               "hs",               'p', 'B'},
    {"kernel32.dll",        "LoadLibraryW",                 "w",                'h', 'B'},
    {"kernel32.dll",        "FreeLibrary",                  "h",                'd', '-'},
    {"kernel32.dll",        "CreateToolhelp32Snapshot",     "xu",               'h', 'I'},
    {"kernel32.dll",        "Process32FirstW",              "h.",               'd', 'B'},
    {"kernel32.dll",        "Process32NextW",               "h.",               'd', 'B'},
    {"kernel32.dll",        "OpenProcess",                  "xdu",              'h', 'B'},
    {"kernel32.dll",        "GetProcessTimes",              "h....",            'd', 'B'},
    {"kernel32.dll",        "GetCurrentProcess",            "",                 'h', '-'},
    {"advapi32.dll",        "OpenProcessToken",             "hx.",              'd', 'B'},
    {"advapi32.dll",        "LookupPrivilegeValueA",        "ss.",              'd', 'B'},
    {"advapi32.dll",        "AdjustTokenPrivileges",        "hdtu..",           'd', 'A'},
    {"advapi32.dll",        "OpenEventLogW",                "ww",               'h', 'B'},
    {"advapi32.dll",        "ReadEventLogW",                "hxu.unN",          'd', 'B'},
    {"advapi32.dll",        "CloseEventLog",                "h",                'd', '-'},
    {"advapi32.dll",        "OpenSCManagerW",               "wwx",              'h', 'B'},
    {"advapi32.dll",        "OpenServiceW",                 "hwx",              'h', 'B'},
    {"advapi32.dll",        "QueryServiceStatus",           "h.",               'd', 'B'},
    {"advapi32.dll",        "CloseServiceHandle",           "h",                'd', '-'},
    {"advapi32.dll",        "RegOpenKeyExW",                "kwux.",            'd', 'E'},
    {"advapi32.dll",        "RegQueryValueExW",             "kw...N",           'd', 'E'},
    {"advapi32.dll",        "RegCreateKeyExW",              "kw..ux...",        'd', 'E'},
    {"advapi32.dll",        "RegDeleteKeyW",                "kw",               'd', 'E'},
    {"advapi32.dll",        "RegCloseKey",                  "k",                'd', '-'},
    {"msvcrt.dll",          "fread",                        ".UUp",             'U', 'Z'},
    {"msvcrt.dll",          "fwrite",                       ".UUp",             'U', 'Z'},
    {"msvcrt.dll",          "fseek",                        "pdd",              'd', 'M'},
    {"msvcrt.dll",          "fclose",                       "p",                'd', '-'},
    {"liboxnibase.dll",     "oxni_log_output",              "d...............", 'v', '-'},
    {"liboxnibase.dll",     "oxni_log_is_regestered",       "",                 'd', '-'},
    {"liboxnibase.dll",     "oxni_autolog_init",            "sd",               'd', 'M'},
    {"liboxnibase.dll",     "oxni_log_dir",                 "ou",               'd', 'Z'},
    {"liboxnibase.dll",     "oxni_xhash_create",            "pu",               'p', 'Z'},
    {"liboxnibase.dll",     "oxni_xhash_insert",            "p.up",             'd', 'M'},
    {"liboxnibase.dll",     "oxni_xhash_delete",            "p.u",              'd', '-'},
    {"liboxnibase.dll",     "oxni_xhash_destroy",           "p",                'v', '-'},
    {"liboxnibase.dll",     "oxni_mutex_init",              "O",                'd', 'M'},
    {"liboxnibase.dll",     "oxni_mutex_lock",              "p",                'v', '-'},
    {"liboxnibase.dll",     "oxni_zero_malloc_",            "U",                'p', 'Z'},
    {"liboxnibase.dll",     "oxni_ralloc_",                 "pU",               'p', 'Z'},
    {"liboxnibase.dll",     "oxni_strdup",                  "s",                'p', 'Z'},
    {"liboxnibase.dll",     "oxni_free_",                   "p",                'v', '-'},
    {"liboxnibase.dll",     "oxni_out_of_memory_",          "sd",               'v', '-'},
    {"liboxnibase.dll",     "oxni_str_utf8_to_unicode",     "s",                'p', 'Z'},
    {"liboxnibase.dll",     "oxni_dirutils_path_transform", "sou",              'd', 'M'},
    {"liboxnibase.dll",     "oxni_dirutils_mkdir",          "sd",               'd', 'M'},
    {"liboxnibase.dll",     "oxni_path_directory",          "sou",              'd', 'M'},
    {"liboxnibase.dll",     "oxni_path_is_exist_u",         "s",                'd', 'Z'},
    {"liboxnibase.dll",     "oxni_path_del_file_u",         "s",                'd', 'E'},
    {"liboxnibase.dll",     "oxni_file_flush",              "s",                'd', 'E'},
    {"liboxnibase.dll",     "oxni_file_open_w",             "ww",               'p', 'Z'},
    {"liboxnibase.dll",     "oxni_process_path",            "ou",               'd', 'M'},
    {"liboxnibase.dll",     "oxni_process_name",            "ou",               'd', 'M'},
    {"liboxnibase.dll",     "oxni_time",                    "",                 'U', '-'},
    {"liboxnibase.dll",     "oxni_time_get_tick_cout",      "",                 'U', '-'},
    {"liboxnibase.dll",     "oxni_time_stamp_to_local",     "U.",               'd', 'M'},
    {"liboxnibase.dll",     "oxni_timet_to_filetime",       "U.",               'v', '-'},
    {"liboxnibase.dll",     "oxni_filetime_to_timet",       ".",                'U', '-'},
    {"liboxnibase.dll",     "oxni_msleep",                  "u",                'v', '-'},
    {"liboxnibase.dll",     "oxni_sleep",                   "u",                'v', '-'},
    {"liboxnibase.dll",     "oxni_uuid_create",             ".",                'd', 'M'},
    {"liboxnibase.dll",     "oxni_uuid_make_cstr",          ".ou",              'd', 'M'},
    {"liboxnibase.dll",     "oxni_req_query_qword_w",       "kww.",             'd', 'Z'},
    {"liboxni_core.dll",    "oxni_subscribee_install",      "s.upp",            'd', 'M'},
    {"liboxni_core.dll",    "oxni_subscribee_pushback",     "Sjpp",             'd', 'M'},
    {"liboxni_core.dll",    "oxni_subscriber_new",          "p",                'p', 'Z'},
    {"liboxni_core.dll",    "oxni_subscriber_subscribe",    "Ssjp",             'd', 'M'},
    {"liboxni_core.dll",    "oxni_subscriber_pushforward",  "Sjpp",             'd', 'M'},
    {"liboxni_core.dll",    "oxni_subscriber_retain",       "S",                'v', '-'},
    {"liboxni_core.dll",    "oxni_subscriber_delete",       "S",                'v', '-'},
    {"liboxni_core.dll",    "oxni_subscriber_get_attr",     "S",                'p', 'Z'},
    {"liboxni_core.dll",    "oxni_res_require",             "sdp",              'd', 'M'},
    {"liboxni_core.dll",    "oxni_res_deliver",             "sJppd",            'd', 'M'},
    {"liboxni_core.dll",    "oxnir_rsp_get_errno",          "p",                'd', 'E'},
    {"liboxni_core.dll",    "oxnir_rsp_get_resp",           "p",                'p', 'Z'},
    {"liboxni_core.dll",    "oxni_dbg_decl",                "ss.p",             'd', 'M'},
    {"liboxni_core.dll",    "oxni_dbg_echo",                "pds",              'v', '-'},
    {"liboxni_core.dll",    "oxni_dbg_exec",                "ssdp",             'd', 'M'},
    {"liboxni_core.dll",    "oxni_timer_start",             "upp",              'U', 'Z'},
    {"liboxni_core.dll",    "oxni_timer_stop",              "U",                'v', '-'},
    {"liboxnialgo.dll",     "oxni_crc32_calc",              ".U",               'x', '-'},
    {"liboxnialgo.dll",     "xor_encry",                    ".U.",              'v', '-'},
    {"liboxnialgo.dll",     "xor_decry",                    ".U.",              'v', '-'},
    {"liboxni_agentid.dll", "oxni_dev_get_id_md5",          "oU",               'd', 'M'},
    {"liboxni_agentid.dll", "oxni_dev_get_id_crc32",        "",                 'u', '-'},
    {"libwdu_ejs.dll",      "wdu_json_load_file_ejs",       "s",                'p', 'Z'},
    {"libwdu_ejs.dll",      "wdu_json_dump_file_ejs",       "js",               'd', 'M'},
    {"libwdu_ejs.dll",      "wdu_json_delete_ejs",          "p",                'v', '-'},
    {"libwdu_jansson.dll",  "wdu_json_loads",               "sUp",              'p', 'Z'},
    {"libwdu_jansson.dll",  "wdu_json_loadb",               ".UUp",             'p', 'Z'},
    {"libwdu_jansson.dll",  "wdu_json_dumps",               "jx",               'p', 'Z'},
    {"libwdu_jansson.dll",  "wdu_json_object",              "",                 'p', 'Z'},
};

/* The errors with which Windows documents that a call fails, those of broken arguments left out. A
 * call that is not here: access denied, and no memory. */
struct call_errors {
    const char *name;
    std::vector<uint32_t> errors;
};

static const struct call_errors s_errors[] = {
    {"CreateFileA",                {2, 3, 5, 32, 112, 1392}},
    {"CreateFileW",                {2, 3, 5, 32, 1392}     },
    {"ReadFile",                   {5, 21, 23, 33, 1117}   },
    {"WriteFile",                  {5, 19, 33, 112, 1117}  },
    {"GetFileTime",                {5, 6}                  },
    {"SetFileTime",                {5, 19}                 },
    {"GetFileInformationByHandle", {5, 50}                 },
    {"FindFirstFileW",             {2, 3, 5, 18}           },
    {"FindNextFileW",              {5, 18}                 },
    {"DeleteFileW",                {2, 5, 32}              },
    {"GetWindowsDirectoryW",       {8}                     },
    {"ExpandEnvironmentStringsW",  {8}                     },
    {"FileTimeToLocalFileTime",    {87}                    },
    {"LocalFileTimeToFileTime",    {87}                    },
    {"FileTimeToSystemTime",       {87}                    },
    {"SystemTimeToFileTime",       {87}                    },
    {"MultiByteToWideChar",        {122, 1113}             },
    {"WideCharToMultiByte",        {122, 1113}             },
    {"GetModuleHandleA",           {126}                   },
    {"GetProcAddress",             {127}                   },
    {"LoadLibraryW",               {8, 126, 193, 1114}     },
    {"CreateToolhelp32Snapshot",   {5, 8, 24}              },
    {"Process32FirstW",            {18}                    },
    {"Process32NextW",             {18}                    },
    {"OpenProcess",                {5, 87}                 },
    {"GetProcessTimes",            {5}                     },
    {"OpenProcessToken",           {5}                     },
    {"LookupPrivilegeValueA",      {1313}                  },
    {"AdjustTokenPrivileges",      {5, 1300}               },
    {"OpenEventLogW",              {2, 5, 1722}            },
    {"ReadEventLogW",              {5, 38, 122, 1500, 1503}},
    {"OpenSCManagerW",             {5, 1065, 1722}         },
    {"OpenServiceW",               {5, 1060}               },
    {"QueryServiceStatus",         {5, 1722}               },
    {"RegOpenKeyExW",              {2, 5, 1018}            },
    {"RegQueryValueExW",           {2, 5, 234, 1018}       },
    {"RegCreateKeyExW",            {5, 1018, 1021, 1450}   },
    {"RegDeleteKeyW",              {2, 5, 1018}            },
    {"oxnir_rsp_get_errno",        {110}                   },
    {"oxni_path_del_file_u",       {2, 5, 32}              },
    {"oxni_file_flush",            {2, 5, 32, 112}         },
};

#endif
