/* The table of registered products. Host's callbacks. */
#include "bypass_mgr_table.h"

#include <string.h>

#include <oxni/base/memory.h>

#include "bypass_log.h"

/* Registered products. Key: the handle's 8 bytes; value: its struct suber_set, owned. Lives as long
 * as the process. */
static oxni_xhash *s_suber_map;

void suber_set_free(void *value)
{
    struct suber_set *record = (struct suber_set *)value;

    if (record == NULL) {
        LOG_WARN("suber_set is NULL");
        return;
    }
    oxni_free_(record->product_name);
    oxni_xhash_destroy(record->driver_modules);
    oxni_free_(record);
}

int bypass_mgr_table_create(void)
{
    if (s_suber_map == NULL)
        s_suber_map = oxni_xhash_create(suber_set_free, 0);
    return s_suber_map != NULL ? 0 : -1;
}

int bypass_mgr_table_insert(oxni_subscriber *subscriber, struct suber_set *record)
{
    return oxni_xhash_insert(s_suber_map, &subscriber, sizeof(subscriber), record);
}

void bypass_mgr_table_delete(oxni_subscriber *subscriber)
{
    (void)oxni_xhash_delete(s_suber_map, &subscriber, sizeof(subscriber));
}

struct suber_set *bypass_mgr_table_find(oxni_subscriber *subscriber)
{
    void *record = NULL;

    if (oxni_xhash_search(s_suber_map, &subscriber, sizeof(subscriber), &record) != 0)
        return NULL;
    return (struct suber_set *)record;
}

const oxni_xhash_entry *bypass_mgr_table_first(void)
{
    return oxni_xhash_first(s_suber_map);
}

const oxni_xhash_entry *bypass_mgr_table_next(const oxni_xhash_entry *entry)
{
    return oxni_xhash_next(s_suber_map, entry);
}

oxni_subscriber *bypass_mgr_table_subscriber(const oxni_xhash_entry *entry)
{
    oxni_subscriber *subscriber;

    memcpy(&subscriber, entry->key, sizeof(subscriber));
    return subscriber;
}

struct suber_set *bypass_mgr_table_record(const oxni_xhash_entry *entry)
{
    return (struct suber_set *)entry->value;
}
