/* The records of a log as JSON, or as another log. */
#include "commands.h"

#include <cstdio>

#include "../base/file.h"
#include "../base/terminal.h"
#include "../base/text.h"
#include "../evtx/evtx_writer.h"

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
    evidence_log_read(arguments.log, arguments.allowed(), &log);
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
