/* Libraries that the agent loads at run time, the debugger engine among them, and what it is to print. */
#ifndef DEVHOST_MACHINE_MODULES_H
#define DEVHOST_MACHINE_MODULES_H

#include <windows.h>

#include <map>
#include <string>
#include <vector>

/* The file of a driver or of the kernel. */
struct machine_image {
    std::string file; /* without its folder */
    const void *bytes;
    uint64_t size;
};

struct machine_engine {
    bool present = true;
    std::map<std::string, HRESULT> faults;      /* by call */
    uint32_t load_ms = 0;                       /* until a dump's event */
    std::string load_text;                      /* printed meanwhile */
    std::map<std::wstring, std::string> stacks; /* scripted stack text by dump path */
    /* Dumps that are too large to copy: path of the machine in lower case to the real file. What
     * lies at the path itself has the times only. */
    std::map<std::wstring, std::wstring> dump_files;
    /* Images that the engine unwinds with; their bytes are borrowed. */
    std::vector<machine_image> images;
};

/* The engine of this process. */
struct machine_engine &machine_get_engine(void);

/* Hands engine faults, stacks and images to the engine. Called after a change of any. */
void machine_update_engine(void);
/* What clients of the engine did not release; empty: nothing. */
std::string machine_engine_left(void);
/* Libraries that the agent's process loaded and did not free, "dbghelp.dll"; empty: none. The debugger
 * engine may stay loaded, once. */
std::string machine_libraries_left(void);
/* A new process of the agent has loaded none. */
void machine_start_modules(void);
/* Resets an engine that is loaded already. */
void machine_reset_engine(void);
/* fn is called, inside the engine's call, with a sentence about each dump that it opens or rejects. */
void machine_watch_engine(void (*fn)(const std::string &news));

#endif
