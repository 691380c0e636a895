/* What the command line says, handed to the rest of the room. */
#include "commands.h"

#include <fcntl.h>
#include <io.h>
#include <stdio.h>

#include <oxni/base/log.h>

#include "../../platform/liboxnibase/host.h"
#include "../evidence/file.h"
#include "../base/text.h"
#include "../view/view.h"
#include "replay.h"

static enum evidence_damage allowed(const replay_arguments &arguments)
{
    if (arguments.strict)
        return EVIDENCE_STRICT;
    return arguments.lenient ? EVIDENCE_LENIENT : EVIDENCE_STANDARD;
}

/* Nothing is shown while it is played: the result tells it. */
static void prepare(replay_arguments &arguments)
{
    struct view_options view = {};
    struct run_options &session = arguments.options.session;

    arguments.options.damage = allowed(arguments);
    session.guard_memory = arguments.memory == "guard";
    if (session.plugin_path.empty())
        session.plugin_path = run_standard_plugin();
    view.log_level = -1;
    view.quiet = true;
    view_open(view);
    oxnih_log_set_level(OXNI_LOG_DEBUG);
}

int replay_command(struct replay_arguments &arguments)
{
    prepare(arguments);
    return arguments.boots ? replay_list_boots(arguments.options) : replay_run(arguments.options);
}

int replay_command_redact(struct replay_arguments &arguments)
{
    prepare(arguments);
    return replay_redact(arguments.options, arguments.folder);
}

int replay_command_events(const struct replay_arguments &arguments)
{
    const std::string &output = arguments.output;
    evidence_log log;

    if (arguments.from > arguments.to)
        throw devhost_error(EXIT_BAD_CALL, "--from is higher than --to");
    evidence_log_read(arguments.log, allowed(arguments), &log);
    for (const std::string &line : evidence_log_damage(log, SIZE_MAX))
        fprintf(stderr, "oxni_devhost: %s: %s\n", arguments.log.c_str(), line.c_str());
    const std::string text = evidence_log_json(log, arguments.from, arguments.to);

    _setmode(_fileno(stdout), _O_BINARY); /* the same bytes as in a file */
    if (!output.empty())
        evidence_write(output, text);
    else if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0)
        throw devhost_error(EXIT_BAD_CALL, "stdout: cannot be written");
    return EXIT_ALL_HOLD;
}
