/* The agent's debug console: plug-ins declare commands and run the commands of other modules. */
#ifndef OXNI_BASE_DEBUG_CONSOLE_H
#define OXNI_BASE_DEBUG_CONSOLE_H

#include <oxni/base/api.h>

typedef struct oxni_dbg_context oxni_dbg_context;

/* argv[0] is the command name. argv and context are borrowed for the call. */
typedef void (*oxni_dbg_fn)(int32_t argc, char **argv, oxni_dbg_context *context);

/* error is 0 on success. echo is then the text that the command printed, or NULL; borrowed for the
 * call. */
typedef void (*oxni_dbg_echo_fn)(int32_t error, const char *echo);

/* Declares a command. Result 0; -1 for a null argument or a command that is already declared. */
OXNI_API int oxni_dbg_decl(const char *ns, const char *command, const char *help, oxni_dbg_fn fn);

/* Prints text to the console that runs the command. reserved is 0. */
OXNI_API void oxni_dbg_echo(oxni_dbg_context *context, int reserved, const char *text);

/*
 * Queues a command line for another module.
 *
 * fn       Called at most once, with a nonzero error when no module answers.
 * Result   0 queued; -1 for a null argument.
 */
OXNI_API int oxni_dbg_exec(const char *ns, const char *command_line, int reserved,
                           oxni_dbg_echo_fn fn);

#endif
