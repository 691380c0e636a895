/*
 * The machine that a plug-in believes to run on: what Windows keeps of event log, processes,
 * services and privileges. Registry and files have headers of their own. One machine a process; it
 * outlives the agents and boots that are played on it. Host's one thread.
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
    std::set<std::string, std::less<>> privileges;

    /* The environment that the agent has. */
    std::wstring windows_folder = L"C:\\Windows";
    std::map<std::wstring, std::wstring> environment; /* names in lower case */
};

/* The machine of this process. */
inline struct machine &machine_get(void)
{
    static struct machine the_machine;

    return the_machine;
}

/* A text of the machine with its environment's values in place of %NAME%. */
std::wstring machine_expand(const std::wstring &text);

/* A new process of the agent has a new token: every privilege of the machine, none enabled. */
void machine_start_token(void);
/* The difference to the token at the start, "SeSecurityPrivilege enabled"; empty: none. */
std::string machine_token_changes(void);

#endif
