/*
 * Paths of the platform that the plug-in reads and writes: files of its data folder, and files of
 * the platform's configuration. Stateless; any thread of the host.
 *
 * A path that does not fit is logged and treated as if its folder were missing: a truncated path
 * would name another file.
 */
#ifndef PLATFORM_PATH_H
#define PLATFORM_PATH_H

#include <stddef.h>

/* A path of the platform, terminator included. */
#define PLATFORM_PATH_CHARS 260
/* drwxrwxr-x */
#define PLATFORM_FOLDER_MODE 0775

/* The core's state, the dump record and the upload history are stored here. */
#define PLATFORM_DATA_FOLDER "@/../var/bypass_mgr/"

/*
 * Creates the data folder when it is missing, then resolves the path of a file in it.
 *
 * file     Path of the file, starting with PLATFORM_DATA_FOLDER.
 * buffer   size characters; empty when the path cannot be resolved or does not fit, so that reading
 *          and writing fail.
 */
void platform_path_create_data_folder(const char *file, char *buffer, size_t size);

/*
 * Path of a file of the platform's configuration.
 *
 * suffix   Appended to the platform's base folder, starting with a slash or backslash.
 * buffer   size characters; empty on failure.
 * Result   Whether the base folder is known and the path fits; a failure is logged.
 */
bool platform_path_config(const char *suffix, char *buffer, size_t size);

#endif
