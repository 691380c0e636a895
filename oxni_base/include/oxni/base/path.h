/* Paths, folders and files. Paths are UTF-8 unless the name of a function says "w". */
#ifndef OXNI_BASE_PATH_H
#define OXNI_BASE_PATH_H

#include <stdio.h>
#include <wchar.h>

#include <oxni/base/api.h>

/*
 * Resolves a path that may begin with "@", the agent's installation folder, to an absolute one with
 * forward slashes and without "." and ".." parts. A trailing slash is kept.
 *
 * Result   0 done; -1 a null argument or the result does not fit: buffer is empty then.
 */
OXNI_API int oxni_dirutils_path_transform(const char *path, char *buffer, size_t size);

/*
 * Makes a folder and its missing parents.
 *
 * mode     Access bits as of chmod; only kept for systems that know them.
 * Result   0 made or there already; -1 not.
 */
OXNI_API int oxni_dirutils_mkdir(const char *path, int mode);

/* The path up to its last slash or backslash, that one left out; a path without one gives the
 * empty text. Result 0; -1 a null argument or no room: buffer is empty then. */
OXNI_API int oxni_path_directory(const char *path, char *buffer, size_t size);

/* The part behind the last slash or backslash, borrowed from path; NULL for NULL. */
OXNI_API const char *oxni_path_basename(const char *path);

/* Nonzero when a file or folder of that path exists. */
OXNI_API int oxni_path_is_exist_u(const char *path);

/* Deletes a file. Result 0 deleted; otherwise the Windows error code. */
OXNI_API int oxni_path_del_file_u(const char *path);

/* Writes the file's cached data to the disk. Result 0; otherwise the Windows error code: opening
 * the file once more fails with 32 while somebody holds it without sharing. */
OXNI_API int oxni_file_flush(const char *path);

/* fopen with a wide path and mode, of the C runtime that all modules share; NULL when the file
 * cannot be opened. Closed with fclose. */
OXNI_API FILE *oxni_file_open_w(const wchar_t *path, const wchar_t *mode);

/* Absolute path of the running executable. Result 0; -1 it does not fit: buffer is empty then. */
OXNI_API int oxni_process_path(char *buffer, size_t size);

/* Its file name with the extension, in the same way. */
OXNI_API int oxni_process_name(char *buffer, size_t size);

#endif
