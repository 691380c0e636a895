/* The link to the management side and the products that it knows. Host's callbacks. */
#ifndef REPORT_LINK_H
#define REPORT_LINK_H

#include <stdint.h>

/* A product as the management side knows it. Owned texts. */
struct device_info {
    char *product;
    char *device_id;     /* NULL when the answer lacked it */
    char *agent_version; /* NULL when the answer lacked it */
};

/* Creates the device table. */
void report_link_create(void);

/* Watches the link. */
void report_link_watch(void);

/* Whether the management side has named the products that it knows. */
bool report_link_connected(void);

/* The device record of a product; that of the table's first product when this one is unknown; NULL
 * when the management side is not connected. Borrowed. */
const struct device_info *report_link_device(const char *product);

/* One timer slot for two timers, the poll of the link and the deferred upload. The upload starts
 * only when the slot is empty; the poll replaces its content, and the link stops the timer that it
 * contains. 0: empty. Borrowed, lives as long as the process. */
uint64_t *report_link_timer_slot(void);

#endif
