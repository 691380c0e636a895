/*
 * Synthetic evidence: what a customer would send of a scenario's machine, with the truth about it
 * beside it. Nothing here calls the plug-in. Host's one thread.
 */
#ifndef DEVHOST_SYNTHESIS_H
#define DEVHOST_SYNTHESIS_H

#include "../evidence/registry_file.h"
#include "damage.h"
#include "history.h"

/* Name of the form of truth.json. */
static constexpr char SYNTHESIS_TRUTH_SCHEMA[] = "bypass_mgr.truth";

struct synthesis {
    history history;
    std::string log; /* the bytes of System.evtx */
    damage_report damage;
    std::vector<evidence_value> values; /* of the machine's registry */

    /* Whether the record of the boot's start can be read. */
    bool shows(const history_boot &boot) const;
    bool has(uint32_t number) const;
};

/* Makes the evidence of a scenario; the truth of its boots remains to be filled in. damage: a kind of
 * damage_kinds(), or empty. Throws devhost_error. */
synthesis synthesis_make(const struct scenario &scenario, const history_options &options,
                         const std::string &damage);

/* How the runs ended, where the log shows it, and why the truth about a boot whose records are lost is
 * not known. Called after the truth was filled in. */
void synthesis_finish(synthesis *made);

/* Writes System.evtx, Minidump, machine.reg, products.json and truth.json. The folder is new or empty;
 * nothing remains of it after an error. Throws devhost_error with EXIT_BAD_CALL. */
void synthesis_write(const synthesis &made, const std::string &folder);

struct synthesize_arguments {
    std::string scenario, folder, damage;
    history_options options;
};

/* The command of the host. Result: enum devhost_exit. */
int synthesize_command(const synthesize_arguments &arguments);

#endif
