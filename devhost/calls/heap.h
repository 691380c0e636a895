/*
 * A heap for hosts of many boots, in place of the C runtime's, which is slow under Wine. malloc,
 * calloc, realloc and free of this program, of the platform's libraries, of the debugger engine and
 * of the plug-in are redirected to it through their import tables.
 *
 * It serves the thread that opened it. Other threads get the C runtime's blocks, and so does anyone
 * who asks for more than 128 KiB; either may free the other's, but a block of this heap that another
 * thread frees is never reused.
 */
#ifndef DEVHOST_HEAP_H
#define DEVHOST_HEAP_H

#include <windows.h>

/* This program and the platform's libraries take their blocks from the heap from here on. The
 * platform's search for lost blocks looks through it. Harmless when it is open. */
void heap_open(void);

/* So does a module that is loaded later. Does nothing before heap_open. */
void heap_redirect(HMODULE module);

#endif
