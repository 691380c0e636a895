/*
 * A case: everything that was handed in of one machine, read, checked and put together. Host's one
 * thread. All functions throw devhost_error.
 */
#ifndef DEVHOST_CASE_H
#define DEVHOST_CASE_H

#include <memory>
#include <string>
#include <vector>

#include "../base/file.h"
#include "../base/json.h"
#include "../base/run_folder.h"
#include "../base/text_json.h"
#include "../evidence/boots.h"
#include "../evidence/dump_file.h"
#include "../evidence/log.h"
#include "../evidence/registry_file.h"

struct replay_product {
    std::string name;
    std::vector<std::string> modules;
    int64_t count;
    std::string status;
};

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

/* The time zone of the machine that is played. The plug-in prints and compares local times, so the zone of
 * the computer that plays must not matter. */
struct replay_zone {
    TIME_ZONE_INFORMATION rules = {};
    std::string name = "UTC"; /* "Tokyo Standard Time", "UTC+09:00" */
    /* Where the zone is from: "--time-zone", a file, a record; empty: it is assumed. */
    std::string source;
};

/* Where a dump is placed on the machine, and why there. */
struct replay_dump {
    evidence_dump dump;
    bool there = false;   /* whether it exists in this boot */
    bool is_ours = false; /* whether it is of the crash that this boot reports */
    /* Of the boot, that matches its code and parameters; NULL: none. */
    const event_record *record = nullptr;
    std::string place = {};     /* path on the machine */
    uint64_t written_100ns = 0; /* last write on the machine */
    std::string why = {};       /* half a sentence on both */
};

/* A file of a folder or archive that is not used. */
struct replay_ignored {
    std::string file, why;
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

    /* The dump at a path of the machine; NULL: none. */
    const replay_dump *dump_at(const std::string &place) const;
    /* The run whose end the boot judges; NULL: it is not in the log. */
    const evidence_run *before() const
    {
        return boot == &runs.front() ? nullptr : boot - 1;
    }
};

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

/* collect.cpp: evidence in a folder or an archive. */

/* A file that was found. */
struct collected_file {
    std::string path;  /* to open */
    std::string shown; /* for a person: within the folder or the archive */
};

enum collected_kind {
    COLLECTED_OTHER,
    COLLECTED_LOG,
    COLLECTED_DUMP,
    COLLECTED_REGISTRY,
    COLLECTED_JSON, /* records of a log, or a list of products */
    COLLECTED_HIVE,
};

/* The files of a folder, by name; of an archive, extracted to *extracted. Files that cannot be
 * extracted are added to ignored. Throws devhost_error. */
std::vector<collected_file> collect_files(const std::string &source,
                                          std::unique_ptr<run_folder> *extracted,
                                          std::vector<replay_ignored> *ignored);
/* The kind of a file by its first bytes. */
enum collected_kind collect_kind(const std::string &path);

/* Reads all evidence of a folder or archive: the log with the newest start of Windows, dumps,
 * registry exports, products unless there are some. Fills ignored. Throws devhost_error with
 * EXIT_BAD_EVIDENCE when no log contains a start of Windows. */
void collect_evidence(const struct replay_options &options, replay_evidence *evidence);

/* products_file.cpp: products, from the command line or a file. */

/* Reads texts of the form NAME:MODULE,MODULE[:COUNT[:STATUS]], then a JSON file, unless its name is
 * empty: {"NAME": {"modules": [...], "count": 3, "status": "working"}}, also as the member "products"
 * of a scenario. Throws devhost_error. */
std::vector<replay_product> products_read(const std::vector<std::string> &texts,
                                          const std::string &file);
/* The same of a JSON object; where: what contains it, for errors. */
std::vector<replay_product> products_of_json(const std::string &where, const json_value &object);
/* Whether a JSON file looks like a list of products. */
bool products_is_file(const std::string &file);
/* Whether it is the truth that "synthesize" wrote. */
bool products_is_truth(const std::string &file);

/* zone.cpp */

/* The member "time_zone" of a scenario's machine. */
void zone_put(json_lines &writer, const replay_zone &zone);
/* The zone of the computer that runs this program: "UTC+09:00 (Tokyo Standard Time)". */
std::string zone_of_this_computer(void);
/* The zone of the chosen boot: of the option when it is not empty, else of the registry, else of the last
 * record 24 of Kernel-General up to the boot's end, else UTC. Throws devhost_error for an option that
 * is not a zone. */
replay_zone zone_of(const std::string &option, const replay_evidence &evidence);

#endif
