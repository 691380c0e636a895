/*
 * Why the plug-in decided as it did: sentences for a person, each made of something that the
 * plug-in did while the host watched: a line that it logged, a call, a command, an upload.
 * Nothing is concluded here that it did not say or do.
 */
#ifndef DEVHOST_VIEW_EXPLAIN_H
#define DEVHOST_VIEW_EXPLAIN_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "../evidence/event_record.h"

/* Which part of the story a reason belongs to, in the order of the story. */
enum reason_topic {
    REASON_LOG,     /* what it asked the event log */
    REASON_DUMP,    /* which dump it looked at */
    REASON_STACK,   /* what it read on the stack */
    REASON_VERDICT, /* what it concluded, and did about it */
    REASON_TOPICS,
};

/* What it concluded about the last run of Windows. */
enum replay_verdict {
    VERDICT_NONE, /* it came to none */
    VERDICT_NORMAL,
    VERDICT_POWER_LOSS,
    VERDICT_CRASH,
    VERDICT_NOT_KNOWN, /* it could not find out */
};

struct replay_reason {
    enum reason_topic topic;
    uint64_t ms; /* since Windows started, for the first time */
    uint64_t last_ms;
    unsigned times; /* that it did so */
    std::string text;
    std::vector<size_t> because; /* indexes in journal_all() */
};

struct replay_frame {
    std::string text;   /* as the engine printed it */
    std::string module; /* what stands before its '!' or '+'; empty: no frame */
};

struct replay_story {
    enum replay_verdict verdict = VERDICT_NONE;
    std::string blamed; /* module; empty: nobody */
    std::vector<replay_reason> reasons;
    std::vector<event_record> records; /* that a question to the log ended at, each once */
    std::string dump;                  /* that the engine was given last; empty: none */
    std::vector<replay_frame> stack;
    std::vector<std::string> crash_modules; /* the plug-in's own names for those of nobody */
    std::vector<size_t> decisions;          /* indexes in journal_all() of verdicts and blames */
};

/* Watches what happens from here on, and hands it to the view. Once a run, before it is played. */
void explain_start(void);
/* Checks that have begun, and those that came to a verdict. */
size_t explain_begun(void);
size_t explain_ended(void);
/* What was seen since the start. */
replay_story explain_story(void);
/* The indexes in journal_all() of verdicts and blames alone. */
std::vector<size_t> explain_decisions(void);

const char *explain_verdict_name(enum replay_verdict verdict);

#endif
