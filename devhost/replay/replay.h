/*
 * Replay: boots of a machine's own evidence, played through the plug-in, and what it decided. Host's
 * one thread. All functions throw devhost_error before they print or write.
 */
#ifndef DEVHOST_REPLAY_H
#define DEVHOST_REPLAY_H

#include <string>
#include <vector>

#include "../case/case.h"
#include "explain.h"

/* Names of the forms of --json. */
#define REPLAY_SCHEMA "bypass_mgr.replay"
static constexpr char REPLAY_BOOTS_SCHEMA[] = "bypass_mgr.boots";

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

/* Plays and prints. Result: enum devhost_exit. */
int replay_run(const struct replay_options &options);
/* Prints the boots of the log. */
int replay_list_boots(const struct replay_options &options);
/* Plays the chosen boot to its end. Afterwards journal_all() contains it. */
replay_story replay_play(replay_evidence *evidence, const struct run_options &options);
/* Plays every boot of the log, the chosen one last. Result: a row for each, in their order. */
std::vector<replay_row> replay_play_all(const struct replay_options &options,
                                        replay_evidence *evidence, replay_story *story);

/* frames.cpp: marks how the frames of the story were found, and the module that is not certain. */
void images_judge(const replay_evidence &evidence, replay_story *story);
/* "rip", "unwound", "scanned". */
const char *images_found_name(enum kernel_dump_found found);

/* answer.cpp */

/* The commands of the boot that was played, without their times: "guard bypass". */
std::vector<std::string> replay_orders(void);
replay_answer replay_answer_of(const replay_evidence &evidence, const replay_story &story);
/* "bypass", "no bypass", "cannot tell". */
const char *replay_answer_name(enum replay_answer_kind kind);

/* doubts.cpp: what would change the answer, evidence that is missing or contradicts itself. */
struct replay_doubt {
    std::string reason; /* half a sentence: "no dump of the crash was handed in" */
    std::string text;   /* file, event record and what to hand in */
    bool decides;       /* without a bypass, the answer is "cannot tell" because of it */
};

/* The doubts of a boot that was played, the deciding ones first. */
std::vector<replay_doubt> doubts_of(const replay_evidence &evidence, const replay_story &story);

/* What became of a dump: "was given to the debugger engine". */
std::string replay_dump_fate(const replay_evidence &evidence, const replay_dump &placed,
                             const replay_story &story);

/* report.cpp and report_json.cpp. rows: of all boots that were played; empty: only the one. */

/* The table of boots; the one that is played, or NULL, is marked. */
std::string replay_boots_text(const replay_evidence &evidence, const std::vector<replay_row> &rows);
std::string replay_text(const replay_evidence &evidence, const replay_story &story,
                        const replay_answer &answer, const std::vector<replay_row> &rows);
/* The result in the form that docs/replay.md describes. with_story: false leaves out what only the
 * boot that is played shows, all members after "blamed". */
std::string replay_json(const replay_evidence &evidence, const replay_story &story,
                        const replay_answer &answer, const std::vector<replay_row> &rows,
                        const std::string &plugin, bool with_story);
std::string replay_boots_json(const replay_evidence &evidence);

#endif
