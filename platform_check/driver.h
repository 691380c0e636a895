/*
 * What a check needs from a platform beyond the contract: a driver brings time forward and plays the
 * other side of a link. A member that is NULL leaves the promises that need it unchecked. Calls come
 * from the check's thread, outside of callbacks.
 */
#ifndef PLATFORM_DRIVER_H
#define PLATFORM_DRIVER_H

#include <string>

#include <oxni/base/subscriber.h>

struct platform_driver {
    /* Before each row. folder exists, is empty and is the installation and the log directory. */
    void (*start)(const std::string &folder);
    /* Delivers everything that is due within the next milliseconds, and returns then. */
    void (*run)(unsigned ms);
    /* Ends a subscriber, as the death of its process does. */
    void (*leave)(oxni_subscriber *subscriber);
    /* Sets a resource's state, which is 0 at first. */
    void (*set_state)(const char *path, int state);
    /* Answers each later request to a resource with error 0 and the request itself. */
    void (*answer_requests)(const char *path);
    /* Types a line on the debug console. */
    void (*type)(const char *ns, const char *line);
    /* Returns what commands printed since the last call. */
    std::string (*printed)(void);
    /* Answers each later command line of another module with error 0 and the line itself. */
    void (*answer_commands)(const char *ns);
    /* After each row. Returns what the platform noticed, such as a leak; empty: nothing. */
    std::string (*finish)(void);
};

extern const platform_driver g_driver;

#endif
