/*
 * What the files of the core share: the record of a registered product, and the operations that one
 * file offers to the others. Each file owns its own static state.
 *
 * Thread  Everything here runs inside the host's callbacks, which the host delivers one at a time.
 *         Nothing takes a lock.
 */
#ifndef BYPASS_MGR_INTERNAL_H
#define BYPASS_MGR_INTERNAL_H

#include <string>

#include <oxni/base/debug_console.h>
#include <oxni/base/json.h>
#include <oxni/base/subscriber.h>
#include <oxni/base/xhash.h>

#include "crash_info.h"
#include "report_abnormal_crash.h"
#include "status_check.h"

#define BYPASS_SERVICE_NAME "bypass_mgr"

/* From this uptime on a run of Windows counts as proven, and counts go back to 1: ten days. */
#define CALIBRATION_UPTIME_SECONDS 864000u
#define CALIBRATED_COUNT           1

enum message_type {
    MESSAGE_UNKNOWN = 0,
    MESSAGE_REG = 1,
    MESSAGE_CONFLICT = 2,
    MESSAGE_MODIFY = 3,
};

/* Also the numbers in the store. */
enum product_status {
    STATUS_UNKNOWN = 0,
    STATUS_WORKING = 1,
    STATUS_BYPASS = 2,
    STATUS_INITIALIZING = 3,
};

/* One registered product. Owned by the registry's table, or by the handling of its message. */
struct suber_set {
    char *product_name; /* owned; NULL when the message had none */
    int32_t type;       /* enum message_type */
    int32_t status;     /* enum product_status */
    int64_t count;
    oxni_xhash *driver_modules; /* set of module names: keys with their NUL, no values */
    int32_t recover_sent;       /* 1: a "recover" was delivered; the recovery request skips it */
    int32_t parsed;             /* 1: this boot's evidence was applied; reports wait for it */
    struct crash_info crash;    /* the crash blamed in this boot; empty texts when there is none */
};

/* For log lines: a product without a name has none to show. */
static inline const char *suber_set_name(const struct suber_set *record)
{
    return record->product_name != NULL ? record->product_name : "";
}

/* A command to send. Borrowed texts. */
struct bypass_cmd {
    const char *type;   /* "bypass", "recover" or "set_count"; NULL is "bypass" */
    const char *reason; /* NULL is "none" */
    int64_t count;      /* for "set_count" only */
};

/* bypass_mgr_registry.cpp */

/* Makes the table of registered products unless it is there. Result 0; -1 no memory. */
int bypass_mgr_registry_create(void);

/* A message of a subscriber arrived. Result 0; -1 bad arguments, no memory, or a second "reg". */
int32_t bypass_mgr_receive(oxni_subscriber *subscriber, json_t *message);

/* A subscriber left: its record is destroyed and its handle released. NULL is harmless. */
void bypass_mgr_unsubscribe(oxni_subscriber *subscriber);

/* The record filed under a handle, borrowed; NULL when it is not registered. */
struct suber_set *bypass_mgr_find(oxni_subscriber *subscriber);

/* Registered products in the order of their registration; NULL ends. The next entry stays valid
 * while products are sent commands or stored. */
const oxni_xhash_entry *bypass_mgr_first_product(void);
const oxni_xhash_entry *bypass_mgr_next_product(const oxni_xhash_entry *entry);
/* The handle that an entry is filed under, and its record; borrowed. */
oxni_subscriber *bypass_mgr_entry_subscriber(const oxni_xhash_entry *entry);
struct suber_set *bypass_mgr_entry_record(const oxni_xhash_entry *entry);

/* bypass_mgr_store.cpp */

/* Loads the document, and empties it when Windows has started since it was written. boot_time:
 * seconds since 1970 UTC. */
void bypass_mgr_store_load(uint64_t boot_time);

/* Replaces a product's entry and writes the document. Always 0. */
int bypass_mgr_store_product(const struct suber_set *record);

/* The stored count; -1 when this boot's store has none for the product. */
int64_t bypass_mgr_stored_count(const char *product_name);

/* The stored status, 1 to 3; 0 when there is none. */
int32_t bypass_mgr_stored_status(const char *product_name);

/* Reads this boot's crash record. Result 0; -1 there is none: crash is untouched. */
int bypass_mgr_stored_crash(struct crash_info *crash);

/* Files this boot's crash record and writes the document. */
void bypass_mgr_store_crash(const char *path, const char *create_time, const char *module_name);

/* bypass_mgr_command.cpp */

/* Result 0 sent, or the subscriber is not registered; -1 a null handle or no memory. */
int bypass_mgr_send(oxni_subscriber *subscriber, const struct bypass_cmd *request);

/* "recover" to every product that is in bypass, was examined and has not been sent one. */
void bypass_mgr_send_recovery(void);

/* "set_count" 1 to every product that is not in bypass and counts 2 or more. */
void bypass_mgr_calibrate_counts(void);

/* bypass_mgr_decision.cpp */

/* The verdict on the last run of Windows; a status_check_cb. user: the subscriber handle whose
 * registration started the check; one reference is released. Result 0. */
int bypass_mgr_check_cb(int32_t kind, const crash_module_set &modules, const std::string &dump_path,
                        const event_info &event, void *user);

/* Hands a bypassed and examined product to the alarm report. Result 0 handed; -1 no record or name,
 * or no memory; -2 not to be reported yet. */
int bypass_mgr_report_trigger(const struct suber_set *record);

/* bypass_mgr_recover.cpp */

/* Starts, or starts anew, the check for the recovery tag every 60 seconds. */
void bypass_mgr_watch_recover_tag(void);

/* Result 0 written; -1 not. */
int bypass_mgr_write_recover_tag(void);

/* 1 when the tag exists and is valid, else 0. */
int bypass_mgr_check_recover_tag(void);

void bypass_mgr_delete_recover_tag(void);

/* 1 when the drivers were updated in this run of Windows, else 0. */
int bypass_mgr_check_driver_update(void);

/* Seconds since 1970 UTC; 0 when the file cannot be opened or queried. path: 8-bit characters. */
int64_t bypass_mgr_file_creation_time(const char *path);

/* bypass_mgr_debug.cpp */

/* The help text of the debug command. */
extern const char bypass_mgr_dbg_help[];

/* The debug command "bypass"; an oxni_dbg_fn. */
void bypass_mgr_dbg_cmd(int32_t argc, char **argv, oxni_dbg_context *context);

#endif
