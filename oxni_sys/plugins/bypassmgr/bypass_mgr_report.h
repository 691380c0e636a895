/* The report trigger: hands a bypassed product to the alarm report. Host's callbacks. */
#ifndef BYPASS_MGR_REPORT_H
#define BYPASS_MGR_REPORT_H

#include "bypass_mgr_table.h"

/* Hands a bypassed and examined product to the alarm report. Result 0 handed; -1 no record or name,
 * or no memory; -2 not to be reported yet. */
int bypass_mgr_report_trigger(const struct suber_set *record);

#endif
