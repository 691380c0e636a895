/* What the three files of reporting share: alarm (report_abnormal_crash.cpp), upload history
 * (report_history.cpp) and management link (report_link.cpp). */
#ifndef REPORT_INTERNAL_H
#define REPORT_INTERNAL_H

#include <stdint.h>

#include <oxni/base/xhash.h>

#include "report_abnormal_crash.h"

/* A product as the management side knows it. Owned texts. */
struct device_info {
    char *product;
    char *device_id;     /* NULL when it was not told */
    char *agent_version; /* NULL when it was not told */
};

/* report_abnormal_crash.cpp */

/* Makes the table of pending reports. */
void report_pending_create(void);
/* Drops a product's pending report; harmless when there is none. */
void report_pending_forget(const char *product);

/* report_history.cpp: products whose alarm was accepted, across restarts. */

/* 1 when the history does not hold the product, else 0; 0 for NULL. */
int upload_history_need_report(const char *product);
/* 1 when the product was written to the history, else 0. */
int upload_history_save(const char *product);
/* 1 when the product was in the history and was removed, else 0. */
int upload_history_delete(const char *product);

/* report_link.cpp */

/* Whether the management side has told which products it knows. */
bool report_link_connected(void);
/* What it told of a product; of any other product when it does not know this one; NULL when it is
 * not connected. Borrowed. */
const struct device_info *report_link_device(const char *product);

/* One timer slot for two timers, the poll of the link and the deferred upload. The upload starts
 * only when it is empty; the poll takes it over, and the link stops whatever is in it. 0: empty. */
uint64_t report_link_timer(void);
void report_link_set_timer(uint64_t timer);

#endif
