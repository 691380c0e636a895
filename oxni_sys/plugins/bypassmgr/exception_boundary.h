/*
 * Stops exceptions at every function of the plug-in that the host or the debugger engine calls: the
 * C++ library reports a failed allocation by an exception, and neither caller can handle one.
 */
#ifndef EXCEPTION_BOUNDARY_H
#define EXCEPTION_BOUNDARY_H

#include <new>
#include <stdexcept>

/* Logs an exception that was stopped. function: name of the function for the log. */
void exception_boundary_log(const char *function, const std::exception &error);

/*
 * Runs body.
 *
 * function Name of the calling function, for the log.
 * Result   Whether body ran to its end. What the C++ library throws in this plug-in is logged and
 *          dropped; an exception of the host's own passes through.
 */
template <typename Body> bool exception_boundary(const char *function, const Body &body)
{
    try {
        body();
        return true;
    } catch (const std::bad_alloc &error) {
        exception_boundary_log(function, error);
    } catch (const std::logic_error &error) {
        exception_boundary_log(function, error);
    } catch (const std::range_error &error) {
        exception_boundary_log(function, error);
    }
    return false;
}

#endif
