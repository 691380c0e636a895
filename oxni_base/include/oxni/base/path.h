/* Paths, directories and files. Paths are UTF-8; functions whose name ends in "_w" take UTF-16. */
#ifndef OXNI_BASE_PATH_H
#define OXNI_BASE_PATH_H

#include <stdio.h>
#include <wchar.h>

#include <oxni/base/api.h>

/*
 * Converts a path to an absolute one with forward slashes and without "." and ".." components. A
 * leading "@" is the agent's installation directory. A trailing slash is kept.
 *
 * Result   0; -1 for a null argument or a result that does not fit: buffer is then empty.
 */
OXNI_API int oxni_dirutils_path_transform(const char *path, char *buffer, size_t size);

/*
 * Creates a directory and its missing parents.
 *
 * mode     Access bits as for chmod; ignored on Windows.
 * Result   0 created or already present; -1 failed.
 */
OXNI_API int oxni_dirutils_mkdir(const char *path, int mode);

/* Writes the path before its last slash or backslash; the empty text for a path without one.
 * Result 0; -1 for a null argument or a result that does not fit: buffer is then empty. */
OXNI_API int oxni_path_directory(const char *path, char *buffer, size_t size);

/* Returns the part after the last slash or backslash, borrowed from path; NULL for NULL. */
OXNI_API const char *oxni_path_basename(const char *path);

/* Returns nonzero when a file or directory of that path exists. */
OXNI_API int oxni_path_is_exist_u(const char *path);

/* Deletes a file. Result 0; otherwise the Windows error code. */
OXNI_API int oxni_path_del_file_u(const char *path);

/* Flushes the file's cached data to the disk. Result 0; otherwise the Windows error code. The
 * function opens the file again, which fails with 32 while the file is open without sharing. */
OXNI_API int oxni_file_flush(const char *path);

/* Opens a file as fopen does, with a wide path and mode, in the C runtime that all modules share.
 * Returns NULL when the file cannot be opened. Close it with fclose. */
OXNI_API FILE *oxni_file_open_w(const wchar_t *path, const wchar_t *mode);

/* Writes the absolute path of the running executable. Result 0; -1 when it does not fit: buffer is
 * then empty. */
OXNI_API int oxni_process_path(char *buffer, size_t size);

/* Writes its file name with the extension. Result as above. */
OXNI_API int oxni_process_name(char *buffer, size_t size);

#endif
