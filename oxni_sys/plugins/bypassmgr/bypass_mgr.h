/* The core: bypass decisions for registered products. Host's callbacks. */
#ifndef BYPASS_MGR_H
#define BYPASS_MGR_H

/* Sets the core up and offers its service. Result 0; -1 the table or the mutex cannot be created,
 * and nothing else is set up. */
int bypass_mgr_init(void);

#endif
