/* Evidence in a folder or an archive. */
#include "case.h"

#include <algorithm>

#include "../base/file.h"
#include "../base/terminal.h"
#include "../base/text.h"
#include "../evidence/zip.h"

/* A customer's folder has some tens of files; another one must not be searched for minutes. */
static constexpr int MOST_LEVELS = 8;
static constexpr int MOST_FILES = 10000;

/* "a/b" or "a\b", as the folder is written. */
static std::string below(const std::string &folder, const std::string &name)
{
    const bool slash = folder.find('/') != std::string::npos;
    const bool ends = !folder.empty() && (folder.back() == '/' || folder.back() == '\\');

    return folder + (ends ? "" : slash ? "/" : "\\") + name;
}

static void add_folder(const std::string &folder, const std::string &shown, int levels,
                       std::vector<collected_file> *files)
{
    for (const found_file &found : files_find(below(folder, "*"))) {
        const std::string name_shown = shown.empty() ? found.name : shown + "/" + found.name;

        if (files->size() >= MOST_FILES)
            return;
        if (!found.is_folder)
            files->push_back({below(folder, found.name), name_shown});
        else if (levels > 0 && !found.is_link)
            add_folder(below(folder, found.name), name_shown, levels - 1, files);
    }
}

static bool may_be_evidence(const std::string &name)
{
    const std::string lower = text_lower(name);
    const size_t dot = lower.find_last_of('.');

    for (const char *end : {".evtx", ".json", ".dmp", ".mdmp", ".hdmp", ".kdmp", ".reg"})
        if (dot != std::string::npos && lower.substr(dot) == end)
            return true;
    return false;
}

std::vector<collected_file> collect_files(const std::string &source,
                                          std::unique_ptr<run_folder> *extracted,
                                          std::vector<replay_ignored> *ignored)
{
    std::vector<collected_file> files;

    if (folder_exists(source)) {
        add_folder(source, "", MOST_LEVELS, &files);
    } else if (zip_is_archive(source)) {
        *extracted = std::make_unique<run_folder>("");
        terminal_progress("extracting " + source);
        for (const zip_member &member : zip_extract(source, (*extracted)->path, may_be_evidence))
            if (member.path.empty())
                ignored->push_back({member.name, member.why});
            else
                files.push_back({member.path, member.name});
    } else {
        evidence_bad(source, "neither a folder nor an archive (.zip); name single files with "
                             "--events, --dump and --registry");
    }
    std::sort(files.begin(), files.end(),
              [](const collected_file &a, const collected_file &b) { return a.shown < b.shown; });
    return files;
}

enum collected_kind collect_kind(const std::string &path)
{
    const evidence_file file(path);
    const std::string start(reinterpret_cast<const char *>(file.data()),
                            static_cast<size_t>(std::min<uint64_t>(file.bytes(), 64)));
    static const struct {
        std::string start;
        enum collected_kind kind;
    } rows[] = {
        {"ElfFile",                       COLLECTED_LOG     },
        {"PAGEDU64",                      COLLECTED_DUMP    },
        {"PAGEDUMP",                      COLLECTED_DUMP    },
        {"MDMP",                          COLLECTED_DUMP    },
        {"regf",                          COLLECTED_HIVE    },
        {"REGEDIT4",                      COLLECTED_REGISTRY},
        {"Windows Registry Editor",       COLLECTED_REGISTRY},
        {"\xef\xbb\xbfWindows Registry",  COLLECTED_REGISTRY},
        {std::string("\xff\xfeW\0i\0n\0", 8),                 COLLECTED_REGISTRY},
        {"[",                               COLLECTED_JSON                                              },
        {"{",                               COLLECTED_JSON},
    };

    for (const auto &row : rows)
        if (start.compare(0, row.start.size(), row.start) == 0)
            return row.kind;
    return COLLECTED_OTHER;
}

/* The time of the newest start of Windows; 0: the log has none. */
static uint64_t newest_start(const evidence_log &log)
{
    for (size_t i = log.events.size(); i > 0; i--)
        if (evidence_is_start(log.events[i - 1]))
            return log.events[i - 1].time;
    return 0;
}

/* Takes the log when it has a newer start than the one before. */
static void take_log(const struct replay_options &options, const collected_file &file,
                     replay_evidence *evidence)
{
    evidence_log log;

    /* The answer lists what is missing, so a truncated log is better than none. */
    evidence_log_read(
        file.path, options.damage == EVIDENCE_STANDARD ? EVIDENCE_LENIENT : options.damage, &log);
    if (newest_start(log) == 0) {
        evidence->ignored.push_back({file.shown, "a log without a start of Windows"});
    } else if (newest_start(log) > newest_start(evidence->log)) {
        if (!evidence->events_file.empty())
            evidence->ignored.push_back({evidence->events_file, "an older log"});
        evidence->log = std::move(log);
        evidence->events_file = file.shown;
    } else {
        evidence->ignored.push_back({file.shown, "a log that is not newer than the one used"});
    }
}

static void take_json(const struct replay_options &options, const collected_file &file,
                      replay_evidence *evidence)
{
    if (products_is_truth(file.path))
        evidence->ignored.push_back({file.shown, "the truth about synthetic evidence"});
    else if (!products_is_file(file.path))
        take_log(options, file, evidence);
    else if (evidence->products.empty())
        evidence->products = products_read({}, file.path);
    else
        evidence->ignored.push_back(
            {file.shown, "products from an option or another file are used"});
}

static void take(const struct replay_options &options, const collected_file &file,
                 replay_evidence *evidence)
{
    switch (collect_kind(file.path)) {
    case COLLECTED_LOG: take_log(options, file, evidence); break;
    case COLLECTED_JSON: take_json(options, file, evidence); break;
    case COLLECTED_DUMP:
        evidence->dumps.push_back({evidence_dump_read(file.path, file.shown)});
        break;
    case COLLECTED_REGISTRY:
        evidence_registry_read(file.path, &evidence->registry);
        evidence->registry_files.push_back(file.shown);
        break;
    case COLLECTED_HIVE:
        evidence->ignored.push_back(
            {file.shown, "a registry hive: export it with \"reg load\" and \"reg export\""});
        break;
    case COLLECTED_OTHER:
        evidence->ignored.push_back(
            {file.shown, "neither a log, a dump, a registry export nor a list of products"});
        break;
    }
}

/* The reason of an error without the path before it, which is a temporary one for an archive. */
static std::string reason_of(const devhost_error &error, const collected_file &file)
{
    const std::string text = error.what(), path = file.path + ": ";

    return text.compare(0, path.size(), path) == 0 ? text.substr(path.size()) : text;
}

void collect_evidence(const struct replay_options &options, replay_evidence *evidence)
{
    const std::vector<collected_file> files =
        collect_files(options.source, &evidence->extracted, &evidence->ignored);

    for (const collected_file &file : files) {
        terminal_progress("reading " + file.shown);
        try {
            take(options, file, evidence);
        } catch (const devhost_error &error) {
            /* One unreadable file among others does not end the work: the answer names it. */
            evidence->ignored.push_back({file.shown, reason_of(error, file)});
        }
    }
    if (evidence->events_file.empty() && options.events.empty()) {
        std::string why;

        for (const replay_ignored &ignored : evidence->ignored)
            why += "\n  " + ignored.file + ": " + ignored.why;
        evidence_bad(options.source, "contains no System log with a start of Windows; export "
                                     "System.evtx with \"wevtutil epl System System.evtx\"" +
                                         why);
    }
}
