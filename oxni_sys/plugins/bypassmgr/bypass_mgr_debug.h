/* The debug command "bypass". Host's console callbacks. */
#ifndef BYPASS_MGR_DEBUG_H
#define BYPASS_MGR_DEBUG_H

#include <stdint.h>

#include <oxni/base/debug_console.h>

/* The help text of the command. */
extern const char bypass_mgr_dbg_help[];

/* The command; an oxni_dbg_fn. argv[0] is the command word. */
void bypass_mgr_dbg_cmd(int32_t argc, char **argv, oxni_dbg_context *context);

#endif
