/*
 * Why the plug-in decided as it did: sentences for a person, each derived from an observed action of
 * the plug-in: a log line, a call, a command, an upload.
 */
#ifndef DEVHOST_EXPLAIN_H
#define DEVHOST_EXPLAIN_H

#include <cstddef>
#include <cstdint>

#include <string>
#include <vector>

#include "../base/event_record.h"
#include "../view/view.h"

/* The part of the story that a reason belongs to, in order. */
enum reason_topic {
    REASON_LOG,     /* queries of the event log */
    REASON_DUMP,    /* the search for a dump */
    REASON_STACK,   /* modules on the stack */
    REASON_VERDICT, /* conclusions and their consequences */
    REASON_TOPICS,
};

/* The plug-in's conclusion about the previous run of Windows. */
enum replay_verdict {
    VERDICT_NONE, /* no conclusion */
    VERDICT_NORMAL,
    VERDICT_POWER_LOSS,
    VERDICT_CRASH,
    VERDICT_NOT_KNOWN, /* the queries failed */
};

struct replay_reason {
    enum reason_topic topic;
    uint64_t ms;      /* since Windows started, the first time */
    uint64_t last_ms; /* the last time */
    unsigned times;
    std::string text;
    std::vector<size_t> because; /* indexes in journal_all() */
};

struct replay_frame {
    std::string text;   /* as the engine printed it */
    std::string module; /* the part before '!' or '+'; empty: not a frame */
    std::string found;  /* with images at hand: "rip", "unwound" or "scanned"; empty: not known */
};

/* The module that the answer depends on, and that a scan found: blamed, or, while none is, registered and
 * perhaps skipped. */
struct replay_scanned {
    std::string module;
    std::string wanted; /* what to hand in so that it is certain; empty: it is */
};

struct replay_story {
    enum replay_verdict verdict = VERDICT_NONE;
    std::string blamed;     /* module; empty: none */
    uint64_t blamed_ms = 0; /* since Windows started */
    std::vector<replay_reason> reasons;
    std::vector<event_record> records; /* at which queries of the log ended, each once */
    std::string dump;                  /* the last one that the engine got; empty: none */
    std::string engine_error;          /* why the engine printed no stack; empty: it did */
    std::vector<replay_frame> stack;
    replay_scanned scanned;       /* empty without images at hand */
    bool drivers_updated = false; /* the plug-in found updated drivers, and blames no product */
    uint64_t last_query_ms = 0;   /* when the last check reached its verdict */
    std::vector<page_highlight> decisions;
};

/* Watches what happens from here on, and passes it to the view. Called once a run, before it is
 * played. */
void explain_start(void);
/* Adds a call of the plug-in to the journal. */
void explain_note_call(const std::string &text);
/* Whether a check has begun that has not reached its verdict. */
bool explain_is_checking(void);
/* The story since the start. */
replay_story explain_story(void);
/* Verdicts and blames alone. */
std::vector<page_highlight> explain_decisions(void);

const char *explain_verdict_name(enum replay_verdict verdict);

#endif
