/* Crash dumps that are handed in. */
#include "dump_file.h"

#include "../base/text.h"
#include "../base/file.h"

void evidence_dump_read(const std::string &path, evidence_dump *dump)
{
    const evidence_file file(path, UINT64_MAX);
    const size_t slash = path.find_last_of("/\\");
    std::string reason;

    *dump = {path,
             path,
             slash == std::string::npos ? path : path.substr(slash + 1),
             file.bytes(),
             file.written_100ns(),
             {}};
    if (kernel_dump_read(file.data(), file.bytes(), &dump->facts, &reason) != KERNEL_DUMP_OK)
        evidence_bad(path, reason);
    dump->facts.stack.clear(); /* as large as the kernel's stack, and not needed here */
}

enum evidence_fit evidence_dump_fits(const evidence_dump &dump, const std::string &bug_check)
{
    unsigned code;
    unsigned long long parameters[4];

    if (sscanf(bug_check.c_str(), "%x (%llx, %llx, %llx, %llx)", &code, &parameters[0],
               &parameters[1], &parameters[2], &parameters[3]) != 5)
        return EVIDENCE_FIT_UNKNOWN;
    if ((code & ~KERNEL_DUMP_TRIAGE_FLAG) != (dump.facts.bug_check & ~KERNEL_DUMP_TRIAGE_FLAG))
        return EVIDENCE_FITS_NOT;
    for (size_t i = 0; i < 4; i++)
        if (parameters[i] != dump.facts.parameters[i])
            return EVIDENCE_FITS_NOT;
    return EVIDENCE_FITS;
}

const char *evidence_dump_kind(const evidence_dump &dump)
{
    switch (dump.facts.kind) {
    case KERNEL_DUMP_KIND_FULL: return "complete";
    case KERNEL_DUMP_KIND_KERNEL: return "kernel";
    case KERNEL_DUMP_KIND_TRIAGE: return "small";
    case KERNEL_DUMP_KIND_BITMAP_FULL: return "complete, with bitmap";
    default: return "kernel, with bitmap";
    }
}
