/* The event records of an .evtx file as JSON, for a scenario of the development host. */
#include "evtx_log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

enum exit_status {
    EXIT_WRITTEN = 0,
    EXIT_NOT_WRITTEN = 1,
    EXIT_BAD_CALL = 2,
    EXIT_BAD_EVIDENCE = 3,
};

struct options {
    std::string file;
    std::string output;
    uint64_t from = 0;
    uint64_t to = UINT64_MAX;
    bool strict = false;
    bool lenient = false;
};

static const char s_footer[] =
    "The result is an array in the order of the log, oldest first, one record a line:\n"
    "  record   number in the log\n"
    "  source   name of the event's source\n"
    "  id       event id, qualifiers in the high 16 bits\n"
    "  time     written, ISO 8601 in UTC, whole seconds\n"
    "  type     1 error, 2 warning, 4 information\n"
    "  strings  insertion strings, without binary data\n"
    "\n"
    "Damage is never passed over in silence: each finding is a line on stderr. Damaged\n"
    "records are skipped and counted; a file that is cut off is refused. --strict refuses\n"
    "any damage, --lenient reads what is left of a cut-off file. A log that was in use when\n"
    "it was copied does not say how long it is: a cut exactly between two of its chunks is\n"
    "not seen.\n"
    "\n"
    "Exit status: 0 written, 1 the result cannot be written, 2 bad call, 3 unreadable\n"
    "evidence. With 1 to 3 no output file is made or changed.";

static void complain(const std::string &file, const std::string &what)
{
    fprintf(stderr, "evtx2events: %s: %s\n", file.c_str(), what.c_str());
}

static std::string time_text(int64_t seconds)
{
    const time_t time = (time_t)seconds;
    struct tm parts = {};
    char text[64] = "";

    gmtime_r(&time, &parts);
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

/* One record a line, so that two results can be compared. */
static std::string json_of(const evtx_log &log, const options &options)
{
    std::string text = "[";

    for (const evtx_event &event : log.events) {
        if (event.record < options.from || event.record > options.to)
            continue;
        rapidjson::StringBuffer line;
        rapidjson::Writer<rapidjson::StringBuffer> writer(line);

        writer.StartObject();
        writer.Key("record");
        writer.Uint64(event.record);
        writer.Key("source");
        writer.String(event.source.c_str());
        writer.Key("id");
        writer.Uint(event.id);
        writer.Key("time");
        writer.String(time_text(event.time).c_str());
        writer.Key("type");
        writer.Uint(event.type);
        writer.Key("strings");
        writer.StartArray();
        for (const std::string &string : event.strings)
            writer.String(string.c_str());
        writer.EndArray();
        writer.EndObject();
        text += text.size() == 1 ? "\n" : ",\n";
        text += line.GetString();
    }
    return text + "\n]\n";
}

/* Reports everything; false when it is too much for the options. */
static bool acceptable(const evtx_log &log, const options &options)
{
    if (!log.cut_off.empty())
        complain(options.file, log.cut_off);
    for (const std::string &damage : log.damage)
        complain(options.file, damage);
    if (log.cut_off.empty() && log.damage.empty())
        return true;
    complain(options.file, "damaged, " + std::to_string(log.events.size()) + " records read and " +
                               std::to_string(log.lost_records) + " known to be lost");
    return log.cut_off.empty() ? !options.strict : options.lenient;
}

static bool write_all(FILE *file, const std::string &text)
{
    return fwrite(text.data(), 1, text.size(), file) == text.size() && fflush(file) == 0;
}

/* Written beside the file and moved over it: a reader sees the old result or the new one. */
static bool write_file(const std::string &path, const std::string &text)
{
    std::string beside = path + ".XXXXXX";
    const int descriptor = mkstemp(&beside[0]);
    const mode_t mask = umask(0);
    bool written = false;
    int error = errno;

    umask(mask);
    if (descriptor >= 0) {
        FILE *file = fdopen(descriptor, "w");

        written = file != NULL && write_all(file, text) && fsync(descriptor) == 0 &&
                  fchmod(descriptor, 0666 & ~mask) == 0;
        error = errno;
        if (file != NULL)
            fclose(file);
        else
            close(descriptor);
        if (written && rename(beside.c_str(), path.c_str()) != 0) {
            written = false;
            error = errno;
        }
        if (!written)
            unlink(beside.c_str());
    }
    if (!written)
        complain(path, std::string("cannot be written: ") + strerror(error));
    return written;
}

static int convert(const options &options)
{
    evtx_log log;
    std::string error;

    if (!evtx_log_read(options.file, &log, &error)) {
        complain(options.file, error);
        return EXIT_BAD_EVIDENCE;
    }
    if (!acceptable(log, options))
        return EXIT_BAD_EVIDENCE;
    const std::string text = json_of(log, options);

    if (!options.output.empty())
        return write_file(options.output, text) ? EXIT_WRITTEN : EXIT_NOT_WRITTEN;
    if (write_all(stdout, text))
        return EXIT_WRITTEN;
    complain("stdout", std::string("cannot be written: ") + strerror(errno));
    return EXIT_NOT_WRITTEN;
}

int main(int argc, char **argv)
{
    CLI::App app("Prints the event records of an .evtx file as JSON, for a scenario.");
    options options;

    app.name("evtx2events");
    app.footer(s_footer);
    app.add_option("FILE", options.file, "event log to read")->required();
    app.add_option("-o,--output", options.output, "file to write, instead of stdout");
    app.add_option("--from", options.from, "lowest record number")->type_name("N");
    app.add_option("--to", options.to, "highest record number")->type_name("N");
    CLI::Option *strict = app.add_flag("--strict", options.strict, "refuse any damage");
    app.add_flag("--lenient", options.lenient, "read what is left of a cut-off file")
        ->excludes(strict);
    try {
        app.parse(argc, argv);
        if (options.from > options.to)
            throw CLI::ValidationError("--from is higher than --to");
    } catch (const CLI::CallForHelp &help) {
        return app.exit(help);
    } catch (const CLI::ParseError &error) {
        fprintf(stderr, "evtx2events: %s (--help says more)\n", error.what());
        return EXIT_BAD_CALL;
    }
    return convert(options);
}
