/*
 * The recovery tag, with the timer that looks for it, and the driver-update file: two small files
 * of the platform's configuration tree that steer the core after a bypass. Host's callbacks.
 *
 * A tag is valid only with the creation time that it was written with, so a copy or a file made by
 * hand recovers nothing.
 */
#include "bypass_mgr_internal.h"

#include <windows.h>
#include <string.h>

#include <oxni/base/algo.h>
#include <oxni/base/path.h>
#include <oxni/base/str.h>
#include <oxni/base/time.h>
#include <oxni/base/timer.h>

#include "bypass_log.h"
#include "crash_dump.h"
#include "platform_path.h"

#define RECOVER_CHECK_PERIOD_MS 60000u
/* A signed 64-bit number and the salt. */
#define TAG_INPUT_CHARS 64
/* "%u" of 32 bits. */
#define TAG_TEXT_CHARS     16

#define RECOVER_TAG_SUFFIX "/Quorvel/OXNI3_CFG/driver/oxni_driver_recover"
/* The component that writes the file spells it so. */
#define DRIVER_UPDATE_SUFFIX "/Quorvel/OXNI3_CFG/driver/oxni_driver_updata.cfg"

/* The one pending check of the tag; 0: none. */
static uint64_t s_recover_timer;
/* Another place for the tag; empty: the default one. */
static char s_recover_tag_path[PLATFORM_PATH_CHARS];

/* Result 0; -1 there is no base folder. */
static int recover_tag_path(char *buffer, size_t size)
{
    char base[PLATFORM_PATH_CHARS];

    if (s_recover_tag_path[0] != '\0') {
        (void)oxni_strlcpy(buffer, s_recover_tag_path, size);
    } else if (oxni_log_dir(base, sizeof(base)) != 0) {
        (void)oxni_str_snprintf(buffer, size, "%s%s", base, RECOVER_TAG_SUFFIX);
    } else {
        LOG_WARN("get log dir is error");
        return -1;
    }
    LOG_DEBUG("recover flag file path %s", buffer);
    return 0;
}

/* The text of a tag with that time stamp, and the number that it stands for. */
static uint32_t recover_tag_text(int64_t timestamp, char *buffer, size_t size)
{
    char input[TAG_INPUT_CHARS];
    int length =
        oxni_str_snprintf(input, sizeof(input), "%lld%s", (long long)timestamp, "QUORVELOXNI");
    uint32_t sum = oxni_crc32_calc(input, length > 0 ? (size_t)length : 0);

    (void)oxni_str_snprintf(buffer, size, "%u", sum);
    return sum;
}

/* Writes text and time stamp into a new tag. Result 0; -1. */
static int fill_recover_tag(HANDLE file)
{
    char text[TAG_TEXT_CHARS];
    FILETIME local, created;
    DWORD written = 0, error;
    int64_t now = oxni_time();

    (void)recover_tag_text(now, text, sizeof(text));
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

static void bypass_mgr_recover_timer(void *timer, void *arg)
{
    (void)timer;
    (void)arg;
    if (bypass_mgr_check_recover_tag() != 0)
        bypass_mgr_send_recovery();
    bypass_mgr_watch_recover_tag();
}

void bypass_mgr_watch_recover_tag(void)
{
    if (s_recover_timer != 0) {
        oxni_timer_stop(s_recover_timer);
        s_recover_timer = 0;
    }
    s_recover_timer = oxni_timer_start(RECOVER_CHECK_PERIOD_MS, bypass_mgr_recover_timer, NULL);
}

int bypass_mgr_write_recover_tag(void)
{
    char path[PLATFORM_PATH_CHARS], folder[PLATFORM_PATH_CHARS];
    HANDLE file;
    int result;

    if (recover_tag_path(path, sizeof(path)) != 0)
        return -1;
    (void)oxni_path_directory(path, folder, sizeof(folder));
    if (oxni_path_is_exist_u(folder) == 0)
        (void)oxni_dirutils_mkdir(folder, PLATFORM_FOLDER_MODE); /* creating the file tells */
    file = CreateFileA(path, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
    if (file == INVALID_HANDLE_VALUE) {
        LOG_WARN("create path(%s) failed!", path);
        return -1;
    }
    result = fill_recover_tag(file);
    if (result == 0)
        /* The host flushes by path, which fails while the file is held here; the close below
         * writes it all the same. */
        (void)oxni_file_flush(path);
    CloseHandle(file);
    return result;
}

int bypass_mgr_check_recover_tag(void)
{
    char path[PLATFORM_PATH_CHARS], content[PLATFORM_PATH_CHARS], expected[TAG_TEXT_CHARS];
    FILETIME created = {0, 0};
    DWORD bytes = 0;
    HANDLE file;
    int valid = 0;

    if (recover_tag_path(path, sizeof(path)) != 0) {
        LOG_INFO("Failed to retrieve recovery tag path!");
        return 0;
    }
    if (oxni_path_is_exist_u(path) == 0) {
        LOG_DEBUG("File not found. %s", path);
        return 0;
    }
    file = CreateFileA(path, GENERIC_READ, FILE_SHARE_READ, NULL, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, NULL);
    if (file == INVALID_HANDLE_VALUE) {
        LOG_WARN("create path(%s) failed!", path);
        return 0;
    }
    (void)GetFileTime(file, &created, NULL, NULL); /* without one, no tag fits */
    if (!ReadFile(file, content, sizeof(content) - 1, &bytes, NULL)) {
        LOG_WARN("Failed to read file %s.", path);
    } else {
        content[bytes] = '\0';
        (void)recover_tag_text(oxni_filetime_to_timet(&created), expected, sizeof(expected));
        valid = oxni_strcmp(expected, content) == 0;
    }
    CloseHandle(file);
    return valid;
}

void bypass_mgr_delete_recover_tag(void)
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

int bypass_mgr_check_driver_update(void)
{
    char base[PLATFORM_PATH_CHARS], path[PLATFORM_PATH_CHARS];
    wchar_t *wide;
    int updated;

    if (oxni_log_dir(base, sizeof(base)) == 0) {
        LOG_WARN("get log dir is error");
        return 0;
    }
    (void)oxni_str_snprintf(path, sizeof(path), "%s%s", base, DRIVER_UPDATE_SUFFIX);
    LOG_DEBUG("driver update file path %s", path);
    wide = oxni_str_utf8_to_unicode(path);
    updated = is_file_updated_since_boot(wide) ? 1 : 0;
    oxni_str_free(wide);
    return updated;
}

int64_t bypass_mgr_file_creation_time(const char *path)
{
    FILETIME created;
    HANDLE file;
    int64_t seconds = 0;

    file = CreateFileA(path, GENERIC_READ, FILE_SHARE_READ, NULL, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, NULL);
    if (file == INVALID_HANDLE_VALUE) {
        LOG_WARN("Failed to CreateFile [%s]", path);
        return 0;
    }
    if (GetFileTime(file, &created, NULL, NULL))
        seconds = oxni_filetime_to_timet(&created);
    else
        LOG_WARN("Failed to GetFileTime [%s]", path);
    CloseHandle(file);
    return seconds;
}
