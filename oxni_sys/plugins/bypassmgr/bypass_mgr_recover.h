/* The check for the recovery tag, once a minute. Host's callbacks. */
#ifndef BYPASS_MGR_RECOVER_H
#define BYPASS_MGR_RECOVER_H

/* Starts, or starts anew, the check for the recovery tag every 60 seconds; a valid tag sends
 * "recover" to the products in bypass. */
void bypass_mgr_watch_recover_tag(void);

#endif
