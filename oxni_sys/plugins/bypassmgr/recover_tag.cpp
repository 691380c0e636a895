/* The recovery tag: path, text, and the three operations on the file. Host's callbacks. */
#include "recover_tag.h"

#include <windows.h>
#include <string.h>

#include <oxni/base/algo.h>
#include <oxni/base/path.h>
#include <oxni/base/str.h>
#include <oxni/base/time.h>

#include "bypass_log.h"
#include "platform_path.h"

/* A signed 64-bit number and the salt. */
#define TAG_INPUT_CHARS 64
/* "%u" of 32 bits. */
#define TAG_TEXT_CHARS 16
/* Appended to the time stamp, so that a checksum of the time alone is no tag. */
#define TAG_SALT   "QUORVELOXNI"
#define TAG_SUFFIX "/Quorvel/OXNI3_CFG/driver/oxni_driver_recover"

/* Another path of the tag; empty: the default one. Nothing in the core fills it. */
static char s_recover_tag_path[PLATFORM_PATH_CHARS];

/* Result 0; -1 there is no base folder, or the path does not fit. */
static int recover_tag_path(char *buffer, size_t size)
{
    if (s_recover_tag_path[0] != '\0')
        (void)oxni_strlcpy(buffer, s_recover_tag_path, size);
    else if (!platform_path_config(TAG_SUFFIX, buffer, size))
        return -1;
    LOG_DEBUG("recover flag file path %s", buffer);
    return 0;
}

/* The text of a tag with that time stamp, seconds since 1970 UTC. */
static void recover_tag_text(int64_t timestamp, char *buffer, size_t size)
{
    char input[TAG_INPUT_CHARS];
    int length = oxni_str_snprintf(input, sizeof(input), "%lld%s", (long long)timestamp, TAG_SALT);

    (void)oxni_str_snprintf(buffer, size, "%u", oxni_crc32_calc(input, (size_t)length));
}

/* Writes text and time stamp into a new tag. Result 0; -1. */
static int fill_recover_tag(HANDLE file)
{
    char text[TAG_TEXT_CHARS];
    FILETIME local, created;
    DWORD written = 0, error;
    int64_t now = oxni_time();

    recover_tag_text(now, text, sizeof(text));
    if (!WriteFile(file, text, (DWORD)strlen(text), &written, NULL)) {
        error = GetLastError();
        LOG_WARN("Failed to write data to the file.err(%d)", (int)error);
        return -1;
    }
    oxni_timet_to_filetime(now, &local);
    if (!LocalFileTimeToFileTime(&local, &created) || !SetFileTime(file, &created, NULL, NULL)) {
        error = GetLastError();
        LOG_WARN("Failed to SetFileTime.err(%d)", (int)error);
        return -1;
    }
    return 0;
}

int recover_tag_write(void)
{
    char path[PLATFORM_PATH_CHARS], folder[PLATFORM_PATH_CHARS];
    HANDLE file;
    int result;

    if (recover_tag_path(path, sizeof(path)) != 0)
        return -1;
    (void)oxni_path_directory(path, folder, sizeof(folder));
    if (oxni_path_is_exist_u(folder) == 0)
        (void)oxni_dirutils_mkdir(folder, PLATFORM_FOLDER_MODE); /* creating the file fails then */
    file = CreateFileA(path, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
    if (file == INVALID_HANDLE_VALUE) {
        LOG_WARN("create path(%s) failed!", path);
        return -1;
    }
    result = fill_recover_tag(file);
    if (result == 0)
        /* The host flushes by path, which fails while the file is held here; the close below
         * writes it anyway. */
        (void)oxni_file_flush(path);
    CloseHandle(file);
    return result;
}

/* Whether an open tag has the text of its creation time and not a byte more. */
static bool is_tag_valid(HANDLE file, const char *path)
{
    char content[PLATFORM_PATH_CHARS], expected[TAG_TEXT_CHARS];
    FILETIME created;
    DWORD bytes = 0, error;

    if (!GetFileTime(file, &created, NULL, NULL)) {
        error = GetLastError();
        LOG_WARN("Failed to GetFileTime.err(%d)", (int)error);
        return false;
    }
    if (!ReadFile(file, content, sizeof(content) - 1, &bytes, NULL)) {
        LOG_WARN("Failed to read file %s.", path);
        return false;
    }
    content[bytes] = '\0';
    recover_tag_text(oxni_filetime_to_timet(&created), expected, sizeof(expected));
    return bytes == strlen(expected) && oxni_strcmp(expected, content) == 0;
}

bool recover_tag_check(void)
{
    char path[PLATFORM_PATH_CHARS];
    HANDLE file;
    bool valid;

    if (recover_tag_path(path, sizeof(path)) != 0) {
        LOG_INFO("Failed to retrieve recovery tag path!");
        return false;
    }
    if (oxni_path_is_exist_u(path) == 0) {
        LOG_DEBUG("File not found. %s", path);
        return false;
    }
    file = CreateFileA(path, GENERIC_READ, FILE_SHARE_READ, NULL, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, NULL);
    if (file == INVALID_HANDLE_VALUE) {
        LOG_WARN("create path(%s) failed!", path);
        return false;
    }
    valid = is_tag_valid(file, path);
    CloseHandle(file);
    return valid;
}

void recover_tag_delete(void)
{
    char path[PLATFORM_PATH_CHARS];

    if (recover_tag_path(path, sizeof(path)) != 0) {
        LOG_INFO("Failed to retrieve recovery tag path!");
        return;
    }
    if (oxni_path_is_exist_u(path) == 0) {
        LOG_DEBUG("No need to delete a tag that does not exist.");
        return;
    }
    if (oxni_path_del_file_u(path) != 0)
        LOG_WARN("Failed to delete the file.");
}
