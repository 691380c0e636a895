/*
 * Watches a program for crashes and hangs. Both print the trial and the command that repeats it, and
 * end the process with an exit status of their own, so that the parent process can continue with the
 * next trial. Host's one thread; the watch has its own.
 */
#ifndef WATCH_H
#define WATCH_H

#include <cstdint>

#include <string>

enum watch_exit {
    WATCH_CRASHED = 70, /* or aborted */
    WATCH_HUNG = 71,
};

/* Starts the watch. A trial may take that long in real time. */
void watch_open(unsigned seconds);

/* A trial begins. what: the command that repeats it; number: of the trial, from which the next
 * process continues. */
void watch_try(const std::string &what, uint64_t number);

/* The trial in which a program with that output crashed or hung; -1: none. */
int64_t watch_ended_in(const std::string &output);

#endif
