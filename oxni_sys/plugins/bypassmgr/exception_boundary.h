/*
 * Stops exceptions where the host or the debugger engine calls the plug-in: the C++ library reports
 * a failed allocation by an exception, and neither caller can handle one.
 */
#ifndef EXCEPTION_BOUNDARY_H
#define EXCEPTION_BOUNDARY_H

#include <new>
#include <stdexcept>

/* Logs an exception that was stopped. work: what was interrupted. */
void exception_boundary_log(const char *work, const std::exception &error);

/*
 * Runs body.
 *
 * work     What body does, for the log.
 * Result   Whether body ran to its end. What the C++ library throws in this plug-in is logged and
 *          dropped; an exception of the host's own passes through.
 */
template <typename Body> bool exception_boundary(const char *work, const Body &body)
{
    try {
        body();
        return true;
    } catch (const std::bad_alloc &error) {
        exception_boundary_log(work, error);
    } catch (const std::logic_error &error) {
        exception_boundary_log(work, error);
    } catch (const std::range_error &error) {
        exception_boundary_log(work, error);
    }
    return false;
}

#endif
