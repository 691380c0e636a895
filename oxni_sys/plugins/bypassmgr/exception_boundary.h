/*
 * Every function that the host or the debugger engine calls stops exceptions here: the C++ library
 * reports a failed allocation by an exception, and neither caller can handle one.
 */
#ifndef EXCEPTION_BOUNDARY_H
#define EXCEPTION_BOUNDARY_H

/* Logs the exception that is being handled. Called in a handler only. */
void exception_boundary_log(const char *function) noexcept;

/*
 * Runs body.
 *
 * function Name of the calling function, for the log.
 * Result   Whether body ran to its end; an exception is logged and dropped.
 */
template <typename Body> bool exception_boundary(const char *function, const Body &body) noexcept
{
    try {
        body();
        return true;
    } catch (...) {
        exception_boundary_log(function);
        return false;
    }
}

#endif
