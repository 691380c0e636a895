/* Crash dumps that are handed in. */
#include "dump_file.h"

#include <algorithm>

#include "../kernel_dump/bug_check.h"

kernel_dump evidence_dump_facts(const evidence_file &file)
{
    kernel_dump facts;
    std::string reason;

    if (kernel_dump_read(file.data(), file.bytes(), &facts, &reason) != KERNEL_DUMP_OK)
        file.bad(reason);
    return facts;
}

evidence_dump evidence_dump_read(const std::string &path, const std::string &shown)
{
    const evidence_file file(path);
    evidence_dump dump = {path,
                          shown,
                          file_name_of(path),
                          file.bytes(),
                          file.written_100ns(),
                          evidence_dump_facts(file)};

    dump.facts.stack.clear(); /* as large as the kernel's stack, and not needed here */
    return dump;
}

enum evidence_fit evidence_dump_fits(const evidence_dump &dump, const std::string &bug_check)
{
    uint32_t code;
    uint64_t parameters[4];

    if (!bug_check_parse(bug_check, &code, parameters))
        return EVIDENCE_FIT_UNKNOWN;
    return ((code ^ dump.facts.bug_check) & ~KERNEL_DUMP_TRIAGE_FLAG) == 0 &&
                   std::equal(std::begin(parameters), std::end(parameters), dump.facts.parameters)
               ? EVIDENCE_FITS
               : EVIDENCE_FITS_NOT;
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
