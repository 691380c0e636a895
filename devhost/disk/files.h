/*
 * The machine's files, "C:\...", which lie in a folder of the run or in memory. Host's one thread.
 */
#ifndef DEVHOST_FILES_H
#define DEVHOST_FILES_H

#include <cstdint>
#include <windows.h>

#include <string>

/* An empty disk in that folder, which is made. Other programs have no file open. */
void machine_open_disk(const std::wstring &folder);
/* Where a path of the machine, "C:\...", really lies. Paths of the run's own folder are what they
 * are; everything else lies in the run's folder too, whatever its form. */
std::wstring machine_real_path(const std::wstring &path);
/* Writes a file with those times, folders made; existing content is replaced. Throws
 * devhost_error. */
void machine_write_file(const std::wstring &path, const std::string &bytes, uint64_t written_100ns,
                        uint64_t created_100ns);
/* Deletes it; a missing file is harmless. */
void machine_delete_file(const std::wstring &path);
bool machine_file_exists(const std::wstring &path);
/* Times of an existing file. */
struct machine_times {
    uint64_t written_100ns, created_100ns;
};
machine_times machine_file_times(const std::wstring &path);
/* Creation time of a file by its real path, which Wine does not keep; 0: it is not known. */
uint64_t machine_file_created(const std::wstring &real_path);
/* Closes what the agent's process left open, as Windows does at its end. */
void machine_close_agent_files(void);
/* Whole content; throws devhost_error when it cannot be read. status is the error's exit status. */
std::string machine_read_real_file(const std::wstring &real_path, int status);

/* Another program has the file open for reading and writing; share is a combination of FILE_SHARE_*
 * that it allows others. Throws devhost_error when the file is missing. */
void machine_hold_file(const std::wstring &path, DWORD share);
/* Closes it; a file that is not held is harmless. */
void machine_release_file(const std::wstring &path);
void machine_release_all_files(void);

/* Closes a handle of the agent, as CloseHandle does. */
BOOL machine_close_file(HANDLE handle);
/* The stand-ins of file calls; NULL for another name. */
void *machine_file_stand_in(const char *name);

#endif
