/* Functions of the C runtime for runs of many boots: Wine's copy and measure by single bytes. */
#ifndef DEVHOST_QUICK_FUNCTIONS_H
#define DEVHOST_QUICK_FUNCTIONS_H

/* The stand-in of memcpy, memmove, memcmp, strlen or wcslen; NULL for another name. */
void *quick_function(const char *name);

#endif
