/*
 * The model of the plug-in on a random machine: from what passes between plug-in and platform, it
 * predicts commands, checks and entries of the store.
 * Host's one thread.
 */
#ifndef SIMULATION_MODEL_H
#define SIMULATION_MODEL_H

#include <cstdint>

#include <map>
#include <set>
#include <string>
#include <vector>

#include <oxni/base/json.h>
#include <oxni/base/subscriber.h>

#include "liboxni_core/host.h"

static constexpr uint64_t UNIX_EPOCH_SECONDS = 11644473600ull;
static constexpr uint64_t CALIBRATION_MS = 864000000ull;

enum status {
    STATUS_NONE,
    STATUS_WORKING,
    STATUS_BYPASS,
    STATUS_INITIALIZING
};

enum verdict {
    VERDICT_NORMAL,
    VERDICT_FAILED,
    VERDICT_CRASH,
    VERDICT_POWER,
    VERDICT_NOT_YET
};

/* One registered product, or one that could be. */
struct member {
    std::string name;
    std::vector<std::string> modules;
    int status;
    int64_t count;
    bool filed, parsed, recover_sent, left;
    int64_t references; /* of the plug-in */
    int checks;
};

struct status_check {
    oxni_subscriber *subscriber;
    int left;
    bool logon_seen;
};

struct order {
    oxni_subscriber *to;
    std::string type, reason;
    int64_t count;

    bool operator==(const order &other) const
    {
        return to == other.to && type == other.type && reason == other.reason &&
               count == other.count;
    }
};

/* What the store must hold. */
struct entry {
    int64_t count;
    int status;
};

struct timer {
    uint64_t function;
    uint64_t context; /* of a check; 0: none */
};

/* What is delivered at present, and what it is seen and expected to do. */
struct delivery {
    bool open;
    enum oxnih_event_kind kind;
    std::vector<order> expected, seen;
    uint64_t context;           /* of the check whose timer fired */
    oxni_subscriber *registers; /* may start a check */
    int armed;                  /* checks armed or armed again */
    int checks_expected;
    int verdicts, verdicts_expected;
    std::vector<bool> logs; /* whether each opening of the event log succeeded */
    bool arming_failed;
    uint64_t plain_timer; /* function of the last timer without a context */
    bool plain_failed;
    oxni_subscriber *leaves; /* released although it was never filed */
    bool undeletable;        /* the recovery tag */
};

/* Of the agent's process. */
struct agent_model {
    std::map<oxni_subscriber *, member> members;
    std::vector<oxni_subscriber *> table;    /* filed ones, in order */
    std::map<uint64_t, status_check> checks; /* by context */
    std::map<uint64_t, timer> timers;        /* pending ones by handle */
    uint64_t recover_function, uptime_function;
    bool recover_missed;            /* the timer that watches the tag could not be armed */
    json_t *document;               /* the plug-in's own, borrowed */
    std::set<std::string> bypassed; /* names that were in bypass */
    bool only_normal;
    bool calibrated;        /* after ten days, once */
    bool ordered;           /* anything */
    size_t records_written; /* crash records, dump records */
    uint64_t excess;
    uint64_t failed_uploads;
    delivery now;
};

/* Of the machine; outlives the agents. */
struct machine_model {
    std::map<std::string, entry> store;
    bool has_crash;
    std::string blamed;
    std::string dump_created; /* creation time of the small dump that was blamed with, as text */
    std::set<std::string> bypassed;
    std::string on_disk; /* the document in the store's file */
    uint64_t on_disk_hash;
    /* Hashes of the document and of this model when they were compared last; 0: never. */
    uint64_t compared_document, compared_model;
    bool behind; /* the document changed, and its last write failed */
    std::vector<uint64_t> blocks;
    uint64_t boot_seconds; /* of the boot that the store is of */
};

extern struct agent_model model_agent;
extern struct machine_model model_machine;

/* A member's text; empty when there is none. */
std::string model_text(const json_t *object, const char *name);
/* Whether the plug-in can find a recovery tag. */
bool model_tag_exists(void);
/* Polls that a check has at its start. */
int model_polls_at_start(void);

/* What was delivered. */
void model_message(oxni_subscriber *subscriber, const json_t *message);
void model_leave(oxni_subscriber *subscriber);
void model_reply(oxni_subscriber *subscriber, int32_t error, const std::string &type);

/* What one poll of a check finds; moves the check on. */
enum verdict model_poll(status_check &check);
void model_verdict(oxni_subscriber *subscriber, enum verdict verdict);
/* The ten days are over: every product's count is called back, and the records stay as they are. */
void model_calibration(void);
/* "recover" goes to the products that wait for it, or to all. */
void model_recover(bool all);

#endif
