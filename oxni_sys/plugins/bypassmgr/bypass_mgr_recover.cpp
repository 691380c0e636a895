/* The timer that looks for the recovery tag. Host's timer callbacks. */
#include "bypass_mgr_recover.h"

#include <stdint.h>

#include "bypass_mgr_command.h"
#include "exception_boundary.h"
#include "recover_tag.h"
#include "watch_timer.h"

#define RECOVER_CHECK_PERIOD_MS 60000u

/* The one pending check of the tag; 0: none. */
static uint64_t s_recover_timer;

static void bypass_mgr_recover_timer(void *timer, void *arg)
{
    (void)timer;
    (void)arg;
    exception_boundary("recovery tag check", [] {
        if (recover_tag_check())
            bypass_mgr_send_recovery();
    });
    bypass_mgr_watch_recover_tag();
}

void bypass_mgr_watch_recover_tag(void)
{
    watch_timer_stop(&s_recover_timer, bypass_mgr_recover_timer);
    watch_timer_start("recovery tag", RECOVER_CHECK_PERIOD_MS, bypass_mgr_recover_timer,
                      &s_recover_timer);
}
