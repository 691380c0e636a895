/* From arguments of the command line to options. */
#include "commands.h"

#include <oxni/base/log.h>

#include "../../platform/liboxnibase/host.h"
#include "../view/view.h"

void replay_prepare(struct run_options *session)
{
    struct view_options view = {};

    if (session->plugin_path.empty())
        session->plugin_path = run_standard_plugin();
    view.log_level = -1;
    view.quiet = true;
    view_open(view);
    oxnih_log_set_level(OXNI_LOG_DEBUG);
}

void commands_prepare(struct replay_arguments &arguments)
{
    const replay_options &options = arguments.options;

    if (options.source.empty() == options.events.empty())
        throw devhost_error(EXIT_BAD_CALL,
                            options.source.empty()
                                ? "expected a folder or archive with evidence, or --events FILE"
                                : "expected a folder or archive, or --events FILE, not both");
    arguments.options.damage = arguments.allowed();
    arguments.options.session.guard_memory = arguments.memory == "guard";
    replay_prepare(&arguments.options.session);
}

int replay_command(struct replay_arguments &arguments)
{
    commands_prepare(arguments);
    return arguments.boots ? replay_list_boots(arguments.options) : replay_run(arguments.options);
}
