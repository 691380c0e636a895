/*
 * Replay: boots of a machine's own evidence, played through the plug-in, and what it decided. Host's
 * one thread. All functions throw devhost_error before they print or write.
 */
#ifndef DEVHOST_REPLAY_H
#define DEVHOST_REPLAY_H

#include <memory>
#include <string>
#include <vector>

#include "../base/run_folder.h"
#include "../base/text_json.h"
#include "../evidence/boots.h"
#include "../evidence/dump_file.h"
#include "../base/file.h"
#include "../evidence/log.h"
#include "../evidence/registry_file.h"
#include "explain.h"
#include "products_file.h"
#include "zone.h"

/* Names of the forms of --json. */
#define REPLAY_SCHEMA "bypass_mgr.replay"
static constexpr char REPLAY_BOOTS_SCHEMA[] = "bypass_mgr.boots";

struct replay_options {
    std::string source;                  /* folder or archive with evidence; empty: none */
    std::string events;                  /* .evtx, or JSON records; empty: the source's */
    std::vector<std::string> dumps;      /* crash dumps */
    std::string boot;                    /* number of a boot in the log, or "last" */
    std::vector<std::string> products;   /* NAME:MODULE,MODULE[:COUNT[:STATUS]] */
    std::string products_file;           /* JSON; empty: none */
    std::vector<replay_product> known;   /* products that were read already */
    std::vector<std::string> registries; /* .reg */
    std::string time_zone;               /* empty: of the evidence */
    std::string images;                  /* folder with drivers and kernel files; empty: none */
    enum evidence_damage damage;
    bool json;
    bool timing;      /* prints the elapsed time and the part of the library for logs */
    std::string html; /* file for the page; empty: none */
    struct run_options session;
};

/* Where a dump is placed on the machine, and why there. */
struct replay_dump {
    evidence_dump dump;
    bool there;                 /* whether it exists in this boot */
    bool is_ours;               /* whether it is of the crash that this boot reports */
    const event_record *record; /* of the boot, that matches its code and parameters; NULL: none */
    std::string place;          /* path on the machine */
    uint64_t written_100ns;     /* last write on the machine */
    std::string why;            /* half a sentence on both */
};

/* A file of a folder or archive that is not used. */
struct replay_ignored {
    std::string file, why;
};

enum replay_answer_kind {
    ANSWER_BYPASS,
    ANSWER_NO_BYPASS,
    ANSWER_CANNOT_TELL
};

/* The answer to "does the agent order bypass?". */
struct replay_answer {
    enum replay_answer_kind kind;
    std::string sentence;            /* "Bypass: ..." */
    std::vector<std::string> doubts; /* what would change the answer, a sentence each */
    size_t ordered;                  /* products that were ordered into bypass */
};

/* A boot that was played. */
struct replay_row {
    const evidence_run *run;
    struct replay_answer answer;
    std::string blamed;              /* module; empty: none */
    std::vector<std::string> orders; /* "guard bypass", in the order of the commands */
};

/* Drivers and files of the kernel, by which stacks are unwound instead of scanned. */
struct replay_images {
    std::vector<std::unique_ptr<evidence_file>> files; /* mapped as long as the images are used */
    std::vector<kernel_image> images;
    std::vector<replay_ignored> others; /* files that cannot be read */
};

/* A file with the name of a module of a dump. */
struct replay_image_use {
    std::string file;
    std::string why; /* it is not used; empty: it is */
};

/* Everything that was handed in, read and checked. */
struct replay_evidence {
    std::unique_ptr<run_folder> extracted; /* files of an archive */
    std::string events_file;               /* for a person */
    std::vector<std::string> registry_files;
    std::vector<replay_ignored> ignored;
    evidence_log log;
    std::vector<evidence_run> runs;
    std::vector<replay_dump> dumps;
    std::vector<replay_product> products;
    evidence_registry registry;
    std::shared_ptr<const replay_images> images; /* NULL: not handed in */
    std::vector<replay_image_use> image_uses;
    replay_zone zone;                /* of the boot that is played */
    const evidence_run *boot;        /* in runs; NULL when none is needed */
    std::vector<std::string> states; /* of the products when all was played, as JSON */

    /* The run whose end the boot judges; NULL: it is not in the log. */
    const evidence_run *before() const
    {
        return boot == &runs.front() ? nullptr : boot - 1;
    }
};

/* Plays and prints. Result: enum devhost_exit. */
int replay_run(const struct replay_options &options);
/* Prints the boots of the log. */
int replay_list_boots(const struct replay_options &options);
/* Prints what differs between two results of --json. Result: 0 nothing, 1 something. */
int replay_diff(const std::string &old_file, const std::string &new_file);
/* Prints what this computer offers. */
int replay_doctor(void);
/* Writes the evidence as a scenario without names of computers and people into a new folder. */
int replay_redact(const struct replay_options &options, const std::string &folder);

/* Between the files of this directory. */

/* read.cpp: reads everything that the options name; needs_boot: also finds the boot in the log. */
replay_evidence replay_read(const struct replay_options &options, bool needs_boot);
/* Plays a boot of the log next: sets boot and zone. */
void replay_choose(const struct replay_options &options, const evidence_run &boot,
                   replay_evidence *evidence);
/* The scenario of the boot as JSON text, without its log. */
std::string replay_scenario(const replay_evidence &evidence);
/* When a record of the boot is logged. */
struct replay_moment {
    uint64_t ms;                /* since Windows started */
    size_t index;               /* in the log's events */
    int64_t clock_change_100ns; /* by which the clock is set first */
};
/* The records after that of the start, up to that time. Each is logged at its own time, but never
 * before the previous one. */
std::vector<replay_moment> replay_moments(const replay_evidence &evidence, uint64_t until_ms);

/* By how much a record sets the clock, in 100 ns; 0: it does not. */
int64_t replay_clock_change(const event_record &event);

/* place.cpp: decides where each dump lies; the machine's registry must exist. */
void replay_place_dumps(replay_evidence *evidence);
/* The string of a BugCheck record with the path of its dump; empty: it names none. */
std::string replay_dump_path(const event_record &event);

/* commands.cpp: sets the plug-in, unless it is named, and that a boot prints nothing while it is played. */
void replay_prepare(struct run_options *session);

/* replay.cpp: plays the chosen boot to its end. Afterwards journal_all() contains it. */
replay_story replay_play(replay_evidence *evidence, const struct run_options &options);
/* Plays every boot of the log, the chosen one last. Result: a row for each, in their order. */
std::vector<replay_row> replay_play_all(const struct replay_options &options,
                                        replay_evidence *evidence, replay_story *story);

/* images.cpp */

/* Reads the files of a folder, and of those below. */
std::shared_ptr<const replay_images> images_read(const std::string &folder);
/* Adds what becomes of the files with names of modules of the dump, each once. */
void images_add_uses(const replay_images &images, const kernel_dump &dump,
                     std::vector<replay_image_use> *uses);
/* A line for each, and the member "images". */
std::string images_text(const std::vector<replay_image_use> &uses);
void images_put(json_lines &writer, const std::vector<replay_image_use> &uses);
/* Hands the images to the machine, for the next update of its engine. NULL: none. */
void images_place(const replay_images *images);
/* Marks how the frames of the story were found, and the module that is not certain. */
void images_judge(const replay_evidence &evidence, replay_story *story);
/* "rip", "unwound", "scanned". */
const char *images_found_name(enum kernel_dump_found found);

/* answer.cpp */

replay_answer replay_answer_of(const replay_evidence &evidence, const replay_story &story);
/* "bypass", "no bypass", "cannot tell". */
const char *replay_answer_name(enum replay_answer_kind kind);

/* What became of a dump: "was given to the debugger engine". */
std::string replay_dump_fate(const replay_evidence &evidence, const replay_dump &placed,
                             const replay_story &story);

/* report.cpp and report_json.cpp. rows: of all boots that were played; empty: only the one. */

/* The table of boots; the one that is played, or NULL, is marked. */
std::string replay_boots_text(const replay_evidence &evidence, const std::vector<replay_row> &rows);
std::string replay_text(const replay_evidence &evidence, const replay_story &story,
                        const replay_answer &answer, const std::vector<replay_row> &rows);
/* The result in the form that docs/replay.md describes. */
std::string replay_json(const replay_evidence &evidence, const replay_story &story,
                        const replay_answer &answer, const std::vector<replay_row> &rows,
                        const std::string &plugin);
/* The same without what only the boot that is played shows: its members up to "blamed". */
std::string replay_json_of_boots(const replay_evidence &evidence, const replay_story &story,
                                 const replay_answer &answer, const std::vector<replay_row> &rows,
                                 const std::string &plugin);
std::string replay_boots_json(const replay_evidence &evidence);

#endif
