/*
 * Archives (.zip) that people hand in: the members that can be evidence are extracted to a folder.
 */
#ifndef DEVHOST_EVIDENCE_ZIP_H
#define DEVHOST_EVIDENCE_ZIP_H

#include <string>
#include <vector>

#include "../base/file.h"

struct zip_member {
    std::string name; /* as in the archive */
    std::string path; /* of the extracted file; empty: not extracted */
    std::string why;  /* the reason for that */
};

/* Whether the file begins as an archive does. */
bool zip_is_archive(const std::string &path);

/* Extracts each member that wanted accepts into a new folder of its own below folder, which exists.
 * Members that are encrypted, damaged or packed by another method than store and deflate are listed
 * with the reason. Throws devhost_error: EXIT_BAD_EVIDENCE for a file without a directory of members,
 * and for one that would fill the disk or has members with ".." in their path;
 * EXIT_BAD_CALL when a file cannot be written. */
std::vector<zip_member> zip_extract(const evidence_file &file, const std::string &folder,
                                    bool (*wanted)(const std::string &name));

#endif
