/* Functions of the C runtime for runs of many boots: Wine's versions work byte by byte. */
#ifndef DEVHOST_QUICK_FUNCTIONS_H
#define DEVHOST_QUICK_FUNCTIONS_H

/* The stand-in of memcpy, memmove, memcmp, strlen, wcslen, _vsnprintf or _snprintf; NULL for another
 * name. */
void *quick_function(const char *name);

#endif
