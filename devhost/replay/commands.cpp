/* From arguments of the command line to options. */
#include "commands.h"

#include <cstdio>

#include <oxni/base/log.h>

#include "../../platform/liboxnibase/host.h"
#include "../base/file.h"
#include "../base/terminal.h"
#include "../base/text.h"
#include "../evtx/evtx_writer.h"
#include "../view/view.h"

static enum evidence_damage allowed(const replay_arguments &arguments)
{
    if (arguments.strict)
        return EVIDENCE_STRICT;
    return arguments.lenient ? EVIDENCE_LENIENT : EVIDENCE_STANDARD;
}

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

static void prepare(replay_arguments &arguments)
{
    const replay_options &options = arguments.options;

    if (options.source.empty() == options.events.empty())
        throw devhost_error(EXIT_BAD_CALL,
                            options.source.empty()
                                ? "expected a folder or archive with evidence, or --events FILE"
                                : "expected a folder or archive, or --events FILE, not both");
    arguments.options.damage = allowed(arguments);
    arguments.options.session.guard_memory = arguments.memory == "guard";
    replay_prepare(&arguments.options.session);
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

int replay_command_dump(struct dump_options &options)
{
    replay_prepare(&options.session);
    return replay_dump_command(options);
}

static std::string evtx_between(const std::vector<event_record> &events, uint64_t from, uint64_t to)
{
    std::vector<event_record> chosen;

    for (const event_record &event : events)
        if (event.number >= from && event.number <= to)
            chosen.push_back(event);
    return evtx_bytes(chosen, L"DESKTOP");
}

int replay_command_events(const struct replay_arguments &arguments)
{
    evidence_log log;

    if (arguments.from > arguments.to)
        throw devhost_error(EXIT_BAD_CALL, "--from is higher than --to");
    if (arguments.evtx && arguments.output.empty())
        throw devhost_error(EXIT_BAD_CALL, "--evtx: expected an output file, -o FILE");
    evidence_log_read(arguments.log, allowed(arguments), &log);
    terminal_progress_end();
    for (const std::string &line : evidence_log_damage(log, SIZE_MAX))
        fprintf(stderr, "oxni_devhost: %s: %s\n", arguments.log.c_str(), line.c_str());
    const std::string text = arguments.evtx ? evtx_between(log.events, arguments.from, arguments.to)
                                            : evidence_log_json(log, arguments.from, arguments.to);

    if (!arguments.output.empty())
        evidence_write(arguments.output, text);
    else
        terminal_write(text);
    return EXIT_ALL_HOLD;
}
