/* Finding of evidence in a folder or an archive. */
#ifndef DEVHOST_COLLECT_H
#define DEVHOST_COLLECT_H

#include <memory>
#include <string>
#include <vector>

#include "../base/run_folder.h"
#include "case.h"

/* A file that was found. */
struct collected_file {
    std::string path;  /* to open */
    std::string shown; /* for a person: within the folder or the archive */
};

enum collected_kind {
    COLLECTED_OTHER,
    COLLECTED_LOG,
    COLLECTED_DUMP,
    COLLECTED_REGISTRY,
    COLLECTED_JSON, /* records of a log, or a list of products */
    COLLECTED_HIVE,
};

/* The files of a folder, by name; of an archive, extracted to *extracted. Files that cannot be
 * extracted are added to ignored. Throws devhost_error. */
std::vector<collected_file> collect_files(const std::string &source,
                                          std::unique_ptr<run_folder> *extracted,
                                          std::vector<replay_ignored> *ignored);
/* The kind of a file by its first bytes. */
enum collected_kind collect_kind(const std::string &path);
/* Whether the path is a folder. */
bool collect_is_folder(const std::string &path);

/* Reads all evidence of a folder or archive: the log with the newest start of Windows, dumps,
 * registry exports, products unless there are some. Fills ignored. Throws devhost_error with
 * EXIT_BAD_EVIDENCE when no log contains a start of Windows. */
void collect_evidence(const struct replay_options &options, replay_evidence *evidence);

#endif
