/*
 * A crash dump as evidence: the contents of its header, which decide where it belongs on the
 * machine. The file is not copied.
 */
#ifndef DEVHOST_EVIDENCE_DUMP_FILE_H
#define DEVHOST_EVIDENCE_DUMP_FILE_H

#include <cstdint>

#include <string>
#include <vector>

#include "../base/file.h"
#include "../kernel_dump/kernel_dump.h"

struct evidence_dump {
    std::string path;      /* UTF-8 */
    std::string shown;     /* the path for a person: as given, or within its archive */
    std::string file_name; /* without its folder */
    uint64_t bytes;
    uint64_t written_100ns; /* of this file, which copying may have changed */
    struct kernel_dump facts;

    bool is_small() const
    {
        return facts.kind == KERNEL_DUMP_KIND_TRIAGE;
    }
};

/* Throw devhost_error with EXIT_BAD_EVIDENCE for a file that is not a readable x64 kernel dump. The
 * first one leaves out the stack. */
evidence_dump evidence_dump_read(const std::string &path, const std::string &shown);
kernel_dump evidence_dump_facts(const evidence_file &file);

enum evidence_fit {
    EVIDENCE_FIT_UNKNOWN, /* the text has another form */
    EVIDENCE_FITS_NOT,
    EVIDENCE_FITS,
};

/* Compares code and parameters of the dump with the text of a BugCheck record,
 * "0x0000007e (0x..., 0x..., 0x..., 0x...)". */
enum evidence_fit evidence_dump_fits(const evidence_dump &dump, const std::string &bug_check);

/* "small", "complete" and so on. */
const char *evidence_dump_kind(const evidence_dump &dump);

#endif
