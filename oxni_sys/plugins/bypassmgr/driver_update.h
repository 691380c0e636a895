/* The driver-update file of another component of the platform. Host's callbacks. */
#ifndef DRIVER_UPDATE_H
#define DRIVER_UPDATE_H

/* Whether the drivers were updated in this run of Windows: then crashes are not blamed and counts
 * are not calibrated. */
bool driver_update_check(void);

#endif
