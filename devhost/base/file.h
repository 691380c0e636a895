/*
 * Files that are handed in as evidence: mapped, never changed, never trusted.
 */
#ifndef DEVHOST_FILE_H
#define DEVHOST_FILE_H

#include <cstdint>

#include <string>

/* Ends the run because of a file, with EXIT_BAD_EVIDENCE: "PATH: what". */
[[noreturn]] void evidence_bad(const std::string &path, const std::string &what);

/* The bytes of a file for as long as the object lives. */
class evidence_file
{
  public:
    /* path: UTF-8. Throws devhost_error with EXIT_BAD_EVIDENCE for a file that cannot be read or
     * has more than most_bytes. */
    evidence_file(const std::string &path, uint64_t most_bytes);
    /* The content of a file that is in memory already; borrowed. */
    evidence_file(const uint8_t *data, uint64_t bytes) : data_(data), bytes_(bytes)
    {
    }
    ~evidence_file();
    evidence_file(const evidence_file &) = delete;
    evidence_file &operator=(const evidence_file &) = delete;

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

  private:
    const uint8_t *data_ = nullptr;
    uint64_t bytes_ = 0;
    uint64_t written_100ns_ = 0;
    bool is_mapped_ = false;
};

/* Writes a result: to a temporary file, which then replaces the old one, so that a reader sees the old
 * file or the new one. Throws devhost_error with EXIT_BAD_CALL and removes the temporary file then. */
void evidence_write(const std::string &path, const std::string &text);

#endif
