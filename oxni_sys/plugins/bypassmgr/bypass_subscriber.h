/* The subscriber through which the platform's own drivers take part, as product "XNI". */
#ifndef BYPASS_SUBSCRIBER_H
#define BYPASS_SUBSCRIBER_H

#include <stdint.h>

/* Registers the platform's drivers and starts watching them. Once, behind the core's
 * initialisation. Always 0. */
int32_t bypass_subscriber_init(void);

#endif
