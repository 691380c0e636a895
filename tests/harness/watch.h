/*
 * Watches a program that tries things which may crash or hang it: each end of the process that is
 * no orderly one prints what was tried and how to repeat it, and has an exit status of its own, so
 * that whoever started the program goes on behind it. Host's one thread; the watch has its own.
 */
#ifndef WATCH_H
#define WATCH_H

#include <stdint.h>

#include <string>

enum watch_exit {
    WATCH_CRASHED = 70, /* or aborted */
    WATCH_HUNG = 71,
};

/* From here on; what is tried may take that long in real time. */
void watch_open(unsigned seconds);

/* Something new is tried. what: a line that says how to repeat it; number: of the trial, so that
 * the next process can go on behind it. */
void watch_try(const std::string &what, uint64_t number);

/* The trial that an output of such a program ended in; -1 when it says none. */
int64_t watch_ended_in(const std::string &output);

#endif
