/*
 * Reader of the kernel dumps that Windows writes at a blue screen. Calls nothing of Windows, so it
 * builds and can be tested anywhere.
 *
 * Nothing in a dump is trusted. A field that is invalid makes the dump rejected, with an error and a
 * reason. A memory dump may lack pages: then the existing ones are read, and gaps lists what is
 * missing. Missing data is never guessed. Only the stack walk guesses where it has no image, and marks
 * the frames that it guessed.
 *
 * Supported: x64 dumps of every kind: small ("triage"), kernel memory, complete.
 * Thread: any; there is no state.
 */
#ifndef DEVHOST_KERNEL_DUMP_H
#define DEVHOST_KERNEL_DUMP_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "../unwind/kernel_image.h"
#include "../unwind/unwind.h"

enum kernel_dump_error {
    KERNEL_DUMP_OK = 0,
    KERNEL_DUMP_NOT_A_DUMP, /* another kind of file */
    KERNEL_DUMP_USER_MODE,  /* of a process */
    KERNEL_DUMP_32_BIT,
    KERNEL_DUMP_MACHINE, /* 64 bits, but not x64 */
    KERNEL_DUMP_KIND,    /* of an unknown kind */
    KERNEL_DUMP_CUT_OFF, /* truncated: shorter than its header says, or than any dump */
    KERNEL_DUMP_DAMAGED, /* a field is invalid */
    KERNEL_DUMP_NO_CONTEXT,
    KERNEL_DUMP_NO_MODULES, /* the list of modules has no readable entry */
};

/* Windows may add this flag to the bug check code of a small dump. */
static constexpr uint32_t KERNEL_DUMP_TRIAGE_FLAG = 0x10000000u;

/* Values of kernel_dump.kind. */
enum kernel_dump_kind {
    KERNEL_DUMP_KIND_FULL = 1,
    KERNEL_DUMP_KIND_KERNEL = 2,
    KERNEL_DUMP_KIND_TRIAGE = 4,
    KERNEL_DUMP_KIND_BITMAP_FULL = 5,
    KERNEL_DUMP_KIND_BITMAP_KERNEL = 6,
};

struct kernel_dump_module {
    /* UTF-8. "nt" for the kernel, whatever its file name; otherwise the file name without its
     * extension. '_' replaces the characters that structure a line of stack text: '!', '+' and
     * control characters. */
    std::string name;
    std::string file; /* the file name with its extension; empty when it is unknown */
    uint64_t base;
    uint32_t bytes;
    uint32_t time_stamp; /* of the image: seconds since 1970, or a hash of a reproducible build; 0:
                            the dump does not contain it */
};

struct kernel_dump {
    uint32_t kind = 0;            /* enum kernel_dump_kind */
    uint64_t directory_table = 0; /* physical address of the topmost page table, and flags */
    uint64_t loaded_modules = 0;  /* address of the head of the kernel's list of modules */
    uint32_t build = 0;
    uint32_t processors = 0;
    uint32_t bug_check = 0; /* as written, KERNEL_DUMP_TRIAGE_FLAG included */
    uint64_t parameters[4] = {};
    uint64_t crash_time_100ns = 0; /* UTC file time */
    uint64_t uptime_100ns = 0;
    uint64_t rip = 0;
    uint64_t rsp = 0;
    uint64_t general[16] = {}; /* as in unwind_registers; only Rsp when there are no others */
    bool has_general = false;  /* whether there are others */
    uint64_t stack_start = 0;  /* address of the first saved byte; the end does not wrap */
    std::vector<uint8_t> stack;
    std::vector<kernel_dump_module> modules; /* by rising base */
    /* The parts of modules and stack that a memory dump lacks, one sentence each without a full stop,
     * '!', '+' and line feed; empty when it lacks none. */
    std::vector<std::string> gaps;
};

/* How a frame was found. */
enum kernel_dump_found {
    KERNEL_DUMP_FOUND_RIP,     /* the first frame: where the crash was */
    KERNEL_DUMP_FOUND_UNWOUND, /* the caller of the previous frame, by its unwind codes */
    KERNEL_DUMP_FOUND_SCANNED, /* a value on the stack, which may be stale; so may the later frames */
};

struct kernel_dump_frame {
    uint64_t instruction; /* Rip in the first frame, a return address in most others */
    uint64_t stack;       /* the stack pointer in that frame */
    enum kernel_dump_found found;
};

/*
 * Reads a dump.
 *
 * bytes    size bytes, the whole file; only the needed parts are touched. Borrowed for the call; NULL
 *          when size is 0.
 * dump     Filled; empty on failure.
 * reason   The error in one sentence without a full stop; empty on success.
 *
 * Result   KERNEL_DUMP_OK or the error. Throws std::bad_alloc.
 */
[[nodiscard]] enum kernel_dump_error kernel_dump_read(const uint8_t *bytes, uint64_t size,
                                                      kernel_dump *dump, std::string *reason);

/* The module whose image contains address; where images overlap, the one that starts last. NULL:
 * none. Borrowed from dump. */
const kernel_dump_module *kernel_dump_module_at(const kernel_dump &dump, uint64_t address);

/* Whether a file name, UTF-8, is that of the module's file; case does not matter. The kernel may have been
 * loaded from either of its names. */
bool kernel_dump_image_is_named(const std::string &file, const kernel_dump_module &module);

/* Why an image with the name of the module is not the loaded one: "is of another build: time stamp
 * 0x5f000000, the dump has 0x5e000000". Empty: it is. A dump without the time stamp leaves the size. */
std::string kernel_dump_image_mismatch(const kernel_image &image, const kernel_dump_module &module);

/* The image of the module. NULL: it is not among them. */
const kernel_image *kernel_dump_image_of(const std::vector<kernel_image> &images,
                                         const kernel_dump_module &module);

/*
 * The frames of the crash, innermost first, at most limit, from Rip on.
 *
 * A frame whose module has its image is unwound. After any other one, or one that cannot be unwound, the
 * next 8-byte value from the stack pointer upwards that points into a module counts as a return address,
 * although it may be stale. Values below Rsp belong to the handling of the crash and are skipped.
 *
 * images   Those of other modules and builds are skipped. Without one the whole stack is scanned.
 *
 * Result   Only Rip when Rsp lies outside the saved stack. The frames end at the saved stack's end, or
 *          where unwinding alone reaches the start of the thread or code of a process.
 */
std::vector<kernel_dump_frame> kernel_dump_walk(const kernel_dump &dump, size_t limit,
                                                const std::vector<kernel_image> &images = {});

/* The 8 bytes saved at address; 0 if none were saved there. */
uint64_t kernel_dump_stack_value(const kernel_dump &dump, uint64_t address);

/* An address as debuggers print it: eight digits, a back-tick, eight digits. */
std::string kernel_dump_address_text(uint64_t address);

/* "module+0xoffset"; outside all modules "0x" and the address text. */
std::string kernel_dump_call_site(const kernel_dump &dump, uint64_t address);

#endif
