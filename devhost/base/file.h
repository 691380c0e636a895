/*
 * Files and folders: evidence is mapped, never changed, never trusted.
 */
#ifndef DEVHOST_FILE_H
#define DEVHOST_FILE_H

#include <cstdint>

#include <string>
#include <vector>

/* Ends the run because of a file, with EXIT_BAD_EVIDENCE: "PATH: what". */
[[noreturn]] void evidence_bad(const std::string &path, const std::string &what);

/* The bytes of a file for as long as the object lives. */
class evidence_file
{
  public:
    /* path: UTF-8. Throws devhost_error with EXIT_BAD_EVIDENCE for a file that cannot be read. */
    evidence_file(const std::string &path);
    /* The content of a file that is in memory already; borrowed. path: for errors. */
    evidence_file(const std::string &path, const uint8_t *data, uint64_t bytes)
        : path_(path), data_(data), bytes_(bytes)
    {
    }
    ~evidence_file();
    evidence_file(const evidence_file &) = delete;
    evidence_file &operator=(const evidence_file &) = delete;

    const std::string &path() const
    {
        return path_;
    }
    /* NULL for an empty file. */
    const uint8_t *data() const
    {
        return data_;
    }
    uint64_t bytes() const
    {
        return bytes_;
    }
    /* FILETIME of the last write. */
    uint64_t written_100ns() const
    {
        return written_100ns_;
    }
    /* Throws as evidence_bad does, of this file. */
    [[noreturn]] void bad(const std::string &what) const
    {
        evidence_bad(path_, what);
    }
    /* Throws when the file has more bytes. */
    void limit(uint64_t most_bytes) const;

  private:
    std::string path_;
    const uint8_t *data_ = nullptr;
    uint64_t bytes_ = 0;
    uint64_t written_100ns_ = 0;
    bool is_mapped_ = false;
};

/* Writes a result: to a temporary file, which then replaces the old one, so that a reader sees the old
 * file or the new one. Throws devhost_error with EXIT_BAD_CALL and removes the temporary file then. */
void evidence_write(const std::string &path, const std::string &text);

/* A path without its folder. */
std::string file_name_of(const std::string &path);

bool folder_exists(const std::string &path);
/* Makes a folder in one that exists. Throws devhost_error with EXIT_BAD_CALL. */
void folder_make(const std::string &path);
/* Deletes what can be deleted of all that is in a folder. */
void folder_empty(const std::string &path);

/* A file or folder that was found. */
struct found_file {
    std::string name;
    bool is_folder, is_link;
    uint64_t written_100ns;
};
/* What matches a pattern, "FOLDER\\*"; nothing when there is no such folder. */
std::vector<found_file> files_find(const std::string &pattern);

#endif
