/*
 * The registered products: the record of a product, and the table that files it under its
 * subscriber handle. Host's callbacks, one at a time.
 */
#ifndef BYPASS_MGR_TABLE_H
#define BYPASS_MGR_TABLE_H

#include <stdint.h>

#include <oxni/base/subscriber.h>
#include <oxni/base/xhash.h>

#include "crash_info.h"

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

/* One product. Owned by the table, or by the handling of its message. */
struct suber_set {
    char *product_name; /* owned; NULL when the message had none */
    int32_t type;       /* enum message_type */
    int32_t status;     /* enum product_status */
    int64_t count;
    oxni_xhash *driver_modules; /* set of module names: keys with their NUL, no values */
    int32_t recover_sent;       /* 1: a "recover" was delivered; the recovery request skips it */
    int32_t parsed;             /* 1: this boot's evidence was applied; reports wait for it */
    struct crash_info crash;    /* the crash of the last run; empty texts without one */
};

/* Frees a record and what it owns; NULL is logged. */
void suber_set_free(void *value);

/* The product name for log lines; "" when the product has none. */
static inline const char *suber_set_name(const struct suber_set *record)
{
    return record->product_name != NULL ? record->product_name : "";
}

/* Creates the table unless it exists. Result 0; -1 no memory. */
int bypass_mgr_table_create(void);

/*
 * Files a record under a handle.
 *
 * record   Stolen on success.
 * Result   0; -1 no memory.
 */
int bypass_mgr_table_insert(oxni_subscriber *subscriber, struct suber_set *record);

/* Frees the record that is filed under a handle; harmless when there is none. */
void bypass_mgr_table_delete(oxni_subscriber *subscriber);

/* The record filed under a handle, borrowed; NULL when it is not registered. */
struct suber_set *bypass_mgr_table_find(oxni_subscriber *subscriber);

/* Registered products in the order of their registration, borrowed; NULL ends. The next entry stays
 * valid while products are sent commands or stored. */
const oxni_xhash_entry *bypass_mgr_table_first(void);
const oxni_xhash_entry *bypass_mgr_table_next(const oxni_xhash_entry *entry);

/* The handle that an entry is filed under, and its record; borrowed. */
oxni_subscriber *bypass_mgr_table_subscriber(const oxni_xhash_entry *entry);
struct suber_set *bypass_mgr_table_record(const oxni_xhash_entry *entry);

#endif
