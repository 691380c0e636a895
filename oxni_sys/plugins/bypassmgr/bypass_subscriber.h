/* The subscriber through which the platform's own drivers take part, as product "XNI". */
#ifndef BYPASS_SUBSCRIBER_H
#define BYPASS_SUBSCRIBER_H

#include <stdint.h>

/* Registers the platform's drivers and starts watching them. Called once, after the core's
 * initialisation. Result 0; failures are logged. */
int32_t bypass_subscriber_init(void);

#endif
