/* A host that stays alive for many cases: one a line on the standard input, one result a line on the
 * standard output. The plug-in stays mapped and its files are in memory, so that a case pays for its
 * boots only. */
#include "commands.h"

#include <cstdio>
#include <windows.h>

#include <iostream>

#include "../../platform/liboxnibase/host.h"
#include "../agent/agent.h"
#include "../agent/plugin_image.h"
#include "../base/json.h"
#include "../base/terminal.h"
#include "../base/text.h"
#include "../base/text_json.h"
#include "../calls/heap.h"
#include "../disk/memory_disk.h"

/* What the members of a case set. */
static const struct {
    const char *name;
    std::string replay_options::*option;
} s_texts[] = {
    {"source",        &replay_options::source       },
    {"events",        &replay_options::events       },
    {"boot",          &replay_options::boot         },
    {"products_file", &replay_options::products_file},
    {"time_zone",     &replay_options::time_zone    },
};

static const struct {
    const char *name;
    std::vector<std::string> replay_options::*option;
} s_lists[] = {
    {"dumps",      &replay_options::dumps     },
    {"registries", &replay_options::registries},
};

[[noreturn]] static void bad_case(const std::string &member, const char *expected)
{
    throw devhost_error(EXIT_BAD_CALL, "member '" + member + "' of the case: expected " + expected);
}

static std::string text_in(const std::string &name, const json_value &value)
{
    if (!value.IsString())
        bad_case(name, "a text");
    return value.GetString();
}

static void take_member(const std::string &name, const json_value &value, replay_options *options)
{
    for (const auto &row : s_texts)
        if (name == row.name) {
            options->*row.option = text_in(name, value);
            return;
        }
    for (const auto &row : s_lists)
        if (name == row.name) {
            if (!value.IsArray())
                bad_case(name, "an array of files");
            for (const json_value &element : value.GetArray())
                (options->*row.option).push_back(text_in(name, element));
            return;
        }
    if (name == "products")
        options->known = products_of_json("the case", value);
    else if (name != "id")
        bad_case(name, "no such member");
}

/* Adds what a case names to the options that all cases share. */
static replay_options read_case(const rapidjson::Document &document, replay_options options)
{
    if (!document.IsObject())
        throw devhost_error(EXIT_BAD_CALL, "the line is not a JSON object");
    options.boot = "last";
    for (const auto &member : document.GetObject())
        take_member(member.name.GetString(), member.value, &options);
    if (options.source.empty() == options.events.empty())
        throw devhost_error(EXIT_BAD_CALL, "expected either member 'source' or member 'events'");
    return options;
}

/* Line feeds in a JSON text separate its parts only, and blanks follow. */
static std::string on_one_line(const std::string &json)
{
    std::string line;
    bool begins = false;

    for (char c : json) {
        begins = c == '\n' || (begins && c == ' ');
        if (!begins)
            line += c;
    }
    return line;
}

static std::string play_case(const replay_options &options)
{
    replay_evidence evidence = replay_read(options, true);
    replay_story story;
    const std::vector<replay_row> rows = replay_play_all(options, &evidence, &story);

    return on_one_line(replay_json(evidence, story, replay_answer_of(evidence, story), rows,
                                   options.session.plugin_path, false));
}

/* Result: the line for a case. No error of a case ends the host, but a plug-in that cannot be loaded
 * fails every one. */
static std::string serve_line(const std::string &line, const replay_options &shared)
{
    rapidjson::Document document;
    std::string result, error;
    int status = EXIT_ALL_HOLD;

    document.Parse<rapidjson::kParseIterativeFlag>(line.c_str());
    try {
        result = play_case(read_case(document, shared));
    } catch (const devhost_error &caught) {
        if (caught.status == EXIT_NO_PLUGIN)
            throw;
        status = caught.status;
        error = caught.what();
    } catch (const std::exception &caught) {
        status = EXIT_BAD_CALL;
        error = caught.what();
    }
    const json_value *id = document.HasParseError() ? nullptr : node_member(&document, "id");

    return json_object_text<json_line>([&](json_line &writer) {
        json_member_as_is(writer, "id", id != nullptr ? node_to_text(*id) : "");
        json_member(writer, "status", status);
        if (status != EXIT_ALL_HOLD)
            json_member(writer, "error", error);
        else
            json_member_as_is(writer, "result", result);
    });
}

/* Wine would start a debugger, and wait for it. */
static LONG WINAPI crashed(EXCEPTION_POINTERS *pointers)
{
    const EXCEPTION_RECORD *record = pointers->ExceptionRecord;

    fprintf(stderr, "oxni_devhost: crash: exception 0x%lx at %p\n", record->ExceptionCode,
            record->ExceptionAddress);
    fflush(stderr);
    TerminateProcess(GetCurrentProcess(), record->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

int replay_command_serve(struct replay_arguments &arguments)
{
    replay_options &options = arguments.options;
    std::string line;

    options.session.guard_memory = arguments.memory == "guard";
    replay_prepare(&options.session);
    agent_check_plugin(options.session.plugin_path);
    SetUnhandledExceptionFilter(crashed);
    const run_folder folder("");

    heap_open();
    image_keep_mapped(true);
    memory_disk_open(text_wide(folder.path));
    options.session.reused = &folder;
    while (std::getline(std::cin, line))
        terminal_write(serve_line(line, options) + "\n");
    return EXIT_ALL_HOLD;
}
