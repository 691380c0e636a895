/* The decision on the verdict of a boot. Host's timer callbacks. */
#ifndef BYPASS_MGR_DECISION_H
#define BYPASS_MGR_DECISION_H

#include <string>

#include <stdint.h>

#include "status_check.h"

/*
 * Takes the verdict on the last run of Windows; a status_check_cb.
 *
 * kind      enum status_check_result.
 * user      The subscriber handle whose registration started the check; one reference is released.
 * Result    0.
 */
int bypass_mgr_check_cb(int32_t kind, const crash_module_set &modules, const std::string &dump_path,
                        const event_info &event, void *user);

#endif
