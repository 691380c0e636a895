/* The upload history: products whose alarm was accepted, across restarts. Host's callbacks. */
#ifndef REPORT_HISTORY_H
#define REPORT_HISTORY_H

/* Whether the product is to be reported: the history does not contain it, or cannot be loaded.
 * false for NULL. */
bool upload_history_need_report(const char *product);

/* Adds the product. Result: whether the history was written; a failure is logged. */
bool upload_history_save(const char *product);

/* Removes the product. Result: whether the history contained it and was written without it. */
bool upload_history_delete(const char *product);

#endif
