/*
 * The machine that a plug-in believes to run on: what Windows keeps of event log, processes,
 * services, privileges, files and registry, and the stand-ins through which the plug-in's own
 * Windows calls reach it. One machine a process; it outlives the agents and boots that are played
 * on it. Host's one thread.
 */
#ifndef DEVHOST_MACHINE_H
#define DEVHOST_MACHINE_H

#include <windows.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "../base/event_record.h"

struct machine_process {
    uint32_t pid;
    uint32_t parent;
    std::wstring name;
    uint64_t created_100ns;
    /* Grants limited queries only, as System does on Windows 8.1 and later. */
    bool is_protected = false;
};

/* The file of a driver or of the kernel. */
struct machine_image {
    std::string file; /* without its folder */
    const void *bytes;
    uint64_t size;
};

struct machine {
    /* Clock. */
    uint64_t boot_100ns = 0;
    bool has_tick_count_64 = true;

    /* Event log, oldest first. */
    std::vector<event_record> events;

    std::vector<machine_process> processes;

    /* Service name in lower case to the states that its queries give, one after the other; the last
     * one stays. SERVICE_STOPPED and so on. A missing name is no service. */
    std::map<std::wstring, std::vector<DWORD>> services;

    /* Privileges that the agent's token holds. */
    std::set<std::string> privileges;

    /* Where "C:\..." of the machine really lies, and the environment it has. */
    std::wstring disk_folder;
    std::wstring windows_folder = L"C:\\Windows";
    std::map<std::wstring, std::wstring> environment; /* names in lower case */
    /* Creation time of files by real path in lower case; Wine keeps none. */
    std::map<std::wstring, uint64_t> created_100ns;

    /* Debugger engine. */
    bool has_engine = true;
    std::map<std::string, HRESULT> engine_faults; /* by call */
    uint32_t engine_load_ms = 0;                  /* until a dump's event */
    std::string engine_load_text;                 /* printed meanwhile */
    std::map<std::wstring, std::string> stacks;   /* scripted stack text by dump path */
    /* Dumps that are too large to copy: path of the machine in lower case to the real file. What
     * lies at the path itself has the times only. */
    std::map<std::wstring, std::wstring> dump_files;
    /* Images that the engine unwinds with; their bytes are borrowed. */
    std::vector<machine_image> images;
};

/* The machine of this process. */
struct machine &machine_get(void);

/* A new machine: its disk lies below a folder, its registry in memory. */
void machine_open(const std::wstring &run_folder);

/* Windows starts: volatile keys are removed, and System is a process created at that time. */
void machine_boot(uint64_t now_100ns);

/* Adds a record to the end of the log; number is given here when it is 0. */
void machine_log(event_record record);

/* Hands engine faults, stacks and images to the engine. Called after a change of any. */
void machine_update_engine(void);
/* What clients of the engine did not release; empty: nothing. */
std::string machine_engine_left(void);
/* Libraries that the agent's process loaded and did not free, "dbghelp.dll"; empty: none. One whose
 * functions it looked up may stay loaded, once. */
std::string machine_libraries_left(void);
/* A new process of the agent has loaded none. */
void machine_start_modules(void);
/* Resets an engine that is loaded already. */
void machine_reset_engine(void);
/* fn is called, inside the engine's call, with a sentence about each dump that it opens or rejects. */
void machine_watch_engine(void (*fn)(const std::string &news));

/* The records that the last read of the event log gave, as numbers; {0, 0} when it gave none. */
struct machine_read {
    uint32_t newest;
    uint32_t oldest;
};
machine_read machine_last_read(void);

/* files.cpp */

/* Where a path of the machine, "C:\...", really lies. Paths of the run's own folder are what they
 * are; everything else lies in the run's folder too, whatever its form. */
std::wstring machine_real_path(const std::wstring &path);
/* Writes a file with those times, folders made; existing content is replaced. Throws
 * devhost_error. */
void machine_write_file(const std::wstring &path, const std::string &bytes, uint64_t written_100ns,
                        uint64_t created_100ns);
/* Deletes it; a missing file is harmless. */
void machine_delete_file(const std::wstring &path);
bool machine_file_exists(const std::wstring &path);
/* Times of an existing file. */
struct machine_times {
    uint64_t written_100ns, created_100ns;
};
machine_times machine_file_times(const std::wstring &path);
/* A text of the machine with its environment's values in place of %NAME%. */
std::wstring machine_expand(const std::wstring &text);
/* Closes what the agent's process left open, as Windows does at its end. */
void machine_close_agent_files(void);
/* Whole content; throws devhost_error when it cannot be read. status is the error's exit status. */
std::string machine_read_real_file(const std::wstring &real_path, int status);

/* Another program has the file open for reading and writing; share is a combination of FILE_SHARE_*
 * that it allows others. Throws devhost_error when the file is missing. */
void machine_hold_file(const std::wstring &path, DWORD share);
/* Closes it; a file that is not held is harmless. */
void machine_release_file(const std::wstring &path);
void machine_release_all_files(void);

/* token.cpp */

/* A new process of the agent has a new token: every privilege of the machine, none enabled. */
void machine_start_token(void);
/* The difference to the token at the start, "SeSecurityPrivilege enabled"; empty: none. */
std::string machine_token_changes(void);

/* registry.cpp */

/* Values of HKEY_LOCAL_MACHINE; data as REG_SZ bytes and so on. Keys are made; throws devhost_error
 * below a volatile one. */
void machine_set_value(const std::wstring &key, const std::wstring &name, DWORD type,
                       const std::string &data);
void machine_delete_value(const std::wstring &key, const std::wstring &name);
void machine_delete_key(const std::wstring &key);
bool machine_key_exists(const std::wstring &key);
/* The value as text: a string unchanged, a number in decimal. Result: whether it exists. */
bool machine_get_value(const std::wstring &key, const std::wstring &name, std::string *text);

/* The rules of a time zone by its Windows name, "Tokyo Standard Time", from the real registry.
 * Result: whether there is one. */
bool machine_time_zone(const std::wstring &name, TIME_ZONE_INFORMATION *zone);

/* Stand-ins, for calls.cpp only. NULL when the name has none. */

void *machine_clock_stand_in(const char *name);
void *machine_event_log_stand_in(const char *name);
void *machine_process_stand_in(const char *name);
void *machine_service_stand_in(const char *name);
void *machine_token_stand_in(const char *name);
void *machine_file_stand_in(const char *name);
void *machine_registry_stand_in(const char *name);
void *machine_module_stand_in(const char *name);

/* Shared by the machine's own files. */

/* registry.cpp: an empty registry; removes what a restart of Windows removes. */
void machine_open_registry(void);
void machine_remove_volatile_keys(void);

/* event_log.cpp: forgets the records of the previous machine. */
void machine_open_event_log(void);

/* processes.cpp: whether the handle was a snapshot or a process; it is closed then. */
bool machine_close_process_handle(HANDLE handle);
/* Whether a process handle, the pseudo-handle of the own process included, has one of the rights. */
bool machine_process_grants(HANDLE handle, DWORD rights);

/* token.cpp: whether the handle was a token; it is closed then. */
bool machine_close_token(HANDLE handle);
bool machine_token_has_enabled(const char *name);
/* The name of a privilege by its LUID; empty: there is none. */
std::string machine_privilege_name(DWORD luid);

/* Handles of stand-ins: a number that no real handle has. Each is given once in a process. */
HANDLE machine_new_handle(void);

#endif
