/*
 * Replay: the boots of a machine's own evidence, one of them played through the plug-in, and what
 * it decided. Host's one thread. All throw devhost_error before anything is written.
 */
#ifndef DEVHOST_REPLAY_H
#define DEVHOST_REPLAY_H

#include <string>
#include <vector>

#include "../evidence/boots.h"
#include "../evidence/dump_file.h"
#include "../evidence/log.h"
#include "../evidence/registry_file.h"
#include "../base/run_folder.h"
#include "explain.h"

/* Names of the forms of --json. */
#define REPLAY_SCHEMA       "bypass_mgr.replay"
#define REPLAY_BOOTS_SCHEMA "bypass_mgr.boots"

struct replay_options {
    std::string events;                /* .evtx, or JSON records */
    std::vector<std::string> dumps;    /* crash dumps */
    std::string boot;                  /* number of a boot in the log, or "last" */
    std::vector<std::string> products; /* NAME:MODULE,MODULE[:COUNT[:STATUS]] */
    std::string registry;              /* .reg; empty: none */
    enum evidence_damage damage;
    bool json;
    bool timing;      /* tells how long it took, and what of it reading the log */
    std::string html; /* file to write the page to; empty: none */
    struct run_options session;
};

struct replay_product {
    std::string name;
    std::vector<std::string> modules;
    int64_t count;
    std::string status;
};

/* Where a dump is put on the machine, and why there. */
struct replay_dump {
    evidence_dump dump;
    bool there;             /* whether it exists in this boot */
    std::string place;      /* path of the machine */
    uint64_t written_100ns; /* last write that the machine shows */
    std::string why;        /* half a sentence on both */
};

/* All that was handed in, read and checked. */
struct replay_evidence {
    std::string events_file, registry_file; /* as given; the second may be empty */
    size_t records; /* in the log; those of it that were played are moved to the machine */
    evidence_log log;
    std::vector<evidence_run> runs;
    std::vector<replay_dump> dumps;
    std::vector<replay_product> products;
    evidence_registry registry;
    const evidence_run *boot;        /* in runs; NULL when none is needed */
    const evidence_run *before;      /* the run whose end is judged; NULL: not in the log */
    std::vector<std::string> states; /* of the products when all was played, as JSON */
};

/* Plays and prints. Result: enum devhost_exit. */
int replay_run(const struct replay_options &options);
/* Prints the boots of the log. */
int replay_list_boots(const struct replay_options &options);
/* Prints what differs between two results of --json. Result: 0 nothing, 1 something. */
int replay_diff(const std::string &old_file, const std::string &new_file);
/* Prints what this machine offers. */
int replay_doctor(void);
/* Writes the evidence as a scenario without names of computers and people into a new folder. */
int replay_redact(const struct replay_options &options, const std::string &folder);

/* Between the files of this room. */

/* Reads everything that the options name; needs_boot: also the boot in the log. */
replay_evidence replay_read(const struct replay_options &options, bool needs_boot);
/* The scenario of the boot as JSON text, without its log. */
std::string replay_scenario(const replay_evidence &evidence);
/* When a record of the boot is logged. */
struct replay_moment {
    uint64_t ms;                /* since Windows started */
    size_t index;               /* in the log's events */
    int64_t clock_change_100ns; /* by which the clock is set first */
};
/* The records behind that of the start, up to that time. Each comes when its time says, but never
 * before the one in front of it. */
std::vector<replay_moment> replay_moments(const replay_evidence &evidence, uint64_t until_ms);
/* Decides where each dump lies; the machine's registry must be there. */
void replay_place_dumps(replay_evidence *evidence);

/* report.cpp */

/* The table of boots; the one that is played, or NULL, is marked. */
std::string replay_boots_text(const std::vector<evidence_run> &runs, const evidence_log &log,
                              const evidence_run *played);
std::string replay_text(const replay_evidence &evidence, const replay_story &story);
/* The result in the form that docs/replay.md describes. */
std::string replay_json(const replay_evidence &evidence, const replay_story &story,
                        const std::string &plugin);
std::string replay_boots_json(const std::vector<evidence_run> &runs, const evidence_log &log);

#endif
