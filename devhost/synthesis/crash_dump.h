/* Crash dumps with chosen call sites. */
#ifndef DEVHOST_CRASH_DUMP_H
#define DEVHOST_CRASH_DUMP_H

#include <cstdint>

#include <string>
#include <vector>

struct crash_dump {
    std::string path;                /* on the machine */
    bool complete;                   /* a kernel dump with bitmap; else a small dump */
    std::vector<std::string> frames; /* call sites, top first: "nt!KeBugCheckEx+0x107" */
    uint32_t code;                   /* bug check */
    uint64_t parameters[4];
    uint64_t crashed_100ns, uptime_100ns;
    uint64_t written_100ns;
    bool replaced; /* by a later one of the same path */

    /* The name without its folder. */
    std::string file_name() const;
};

/* Splits the engine's text of a stack into call sites. Result: false for a text that is no list of call
 * sites, which no dump contains. */
bool crash_dump_frames(const std::string &stack, std::vector<std::string> *frames);

/* The address at which the topmost frame outside the kernel executes; 0: there are no frames. */
uint64_t crash_dump_fault(const std::vector<std::string> &frames);

/* The bytes of the dump. loaded: names of further modules that were loaded. */
std::string crash_dump_bytes(const crash_dump &dump, const std::vector<std::string> &loaded);

#endif
