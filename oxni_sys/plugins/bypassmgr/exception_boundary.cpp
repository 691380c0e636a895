/* Logging of exceptions that would otherwise leave the plug-in. Any thread of the host. */
#include "exception_boundary.h"

#include "bypass_log.h"

void exception_boundary_log(const char *work, const std::exception &error)
{
    LOG_ERROR("%s: exception %s", work, error.what());
}
