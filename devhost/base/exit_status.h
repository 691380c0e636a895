/* The exit status of the programs, and the error that ends a run with one. */
#ifndef DEVHOST_EXIT_STATUS_H
#define DEVHOST_EXIT_STATUS_H

#include <stdexcept>
#include <string>

/* Exit status of the development host and of the test harness. */
enum devhost_exit {
    EXIT_ALL_HOLD = 0,
    EXIT_EXPECTATION_FAILED = 1,
    EXIT_BAD_CALL = 2, /* command line or scenario */
    EXIT_BAD_EVIDENCE = 3,
    EXIT_NO_PLUGIN = 4,
    EXIT_SKIPPED = 77, /* something that the scenario needs is not on this machine */
    EXIT_INTERRUPTED = 130,
};

/* Ends the run: one line that names the file and the place in it, and the exit status. */
struct devhost_error : std::runtime_error {
    int status;
    devhost_error(int exit_status, const std::string &what)
        : std::runtime_error(what), status(exit_status)
    {
    }
};

#endif
