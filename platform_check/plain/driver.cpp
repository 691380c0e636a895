/*
 * A driver for a platform that delivers on threads of its own. Time passes by itself, and a
 * link has no other side: promises that need more are listed as not checked. Start here for a
 * driver of your platform.
 */
#include "driver.h"

#include <windows.h>

static void start(const std::string &)
{
    /* Here a platform starts that does not do so when its libraries are loaded. */
}

static void run(unsigned ms)
{
    Sleep(ms + 100); /* for what is due now, too */
}

const platform_driver g_driver = {start,   run,     nullptr, nullptr, nullptr,
                                  nullptr, nullptr, nullptr, nullptr};
