/*
 * A crash dump as evidence: what its header tells, for placing it on the machine. The file itself
 * stays where it is.
 */
#ifndef DEVHOST_EVIDENCE_DUMP_FILE_H
#define DEVHOST_EVIDENCE_DUMP_FILE_H

#include <stdint.h>

#include <string>
#include <vector>

#include "../kernel_dump/kernel_dump.h"

struct evidence_dump {
    std::string path;      /* as given; UTF-8 */
    std::string file_name; /* without its folder */
    uint64_t bytes;
    uint64_t written_100ns; /* of the file as it lies here, which copying may have changed */
    struct kernel_dump facts;
};

/* Throws devhost_error with EXIT_BAD_EVIDENCE for a file that is no readable kernel dump of x64. */
void evidence_dump_read(const std::string &path, evidence_dump *dump);

enum evidence_fit {
    EVIDENCE_FIT_UNKNOWN, /* the text is of another form */
    EVIDENCE_FITS_NOT,
    EVIDENCE_FITS,
};

/* Whether the text of a BugCheck record, "0x0000007e (0x..., 0x..., 0x..., 0x...)", tells of the
 * crash that this dump is of: code and parameters are the same. */
enum evidence_fit evidence_dump_fits(const evidence_dump &dump, const std::string &bug_check);

/* "small", "complete" and so on. */
const char *evidence_dump_kind(const evidence_dump &dump);

#endif
