/* ".ejs" files: validated reads and atomic writes. Stateless. */
#include <oxni/base/ejs.h>

#include <cstring>
#include <string>

#include <windows.h>

#include <liboxnibase/host.h>
#include <oxni/base/algo.h>
#include <oxni/base/log.h>
#include <oxni/base/memory.h>
#include <oxni/base/str.h>

static const char MAGIC[4] = {'E', 'J', 'S', '\x1a'};
static constexpr uint32_t VERSION = 1;

/* Starts the file; numbers are little-endian. The JSON text follows without a terminator. */
struct ejs_header {
    char magic[4];
    uint32_t version;
    uint32_t length; /* bytes of the text */
    uint32_t crc;    /* CRC-32 of the text */
};
static_assert(sizeof(ejs_header) == 16, "the header has no padding");

__attribute__((constructor)) static void set_up()
{
    oxnih_memory_see_through(reinterpret_cast<const void *>(&set_up));
}

#define EJS_WARN(...)                                                                              \
    do {                                                                                           \
        if (oxni_log_level_get() >= OXNI_LOG_WARN)                                                 \
            oxni_log_output(OXNI_LOG_WARN, __VA_ARGS__);                                           \
    } while (0)

static DWORD read_whole(HANDLE file, std::string *bytes)
{
    char part[4096];
    DWORD got;

    for (;;) {
        if (!ReadFile(file, part, sizeof(part), &got, nullptr))
            return GetLastError();
        if (got == 0)
            return ERROR_SUCCESS;
        bytes->append(part, got);
    }
}

/* Result ERROR_SUCCESS or the Windows error code. */
static DWORD read_file(const wchar_t *path, std::string *bytes)
{
    DWORD error;
    HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);

    if (file == INVALID_HANDLE_VALUE)
        return GetLastError();
    error = read_whole(file, bytes);
    CloseHandle(file);
    return error;
}

/* Returns what is wrong with a file's bytes; NULL when its text may be parsed. */
static const char *find_damage(const std::string &bytes)
{
    ejs_header header;

    if (bytes.size() < sizeof(header))
        return "it is shorter than a header";
    memcpy(&header, bytes.data(), sizeof(header));
    if (memcmp(header.magic, MAGIC, sizeof(MAGIC)) != 0)
        return "it does not begin as one";
    if (header.version != VERSION)
        return "its version is not known";
    if (header.length != bytes.size() - sizeof(header))
        return "its length is not the one that was written";
    if (header.crc != oxni_crc32_calc(bytes.data() + sizeof(header), header.length))
        return "its checksum is wrong";
    return nullptr;
}

static json_t *parse(const std::string &bytes, const char *path)
{
    json_error_t error;
    json_t *document = json_loadb(bytes.data() + sizeof(ejs_header),
                                  bytes.size() - sizeof(ejs_header), JSON_ALLOW_NUL, &error);

    if (document == nullptr)
        EJS_WARN("ejs: %s: not read: %s\n", path, error.text);
    if (document != nullptr && !json_is_object(document)) {
        EJS_WARN("ejs: %s: taken as missing: it holds no object\n", path);
        json_decref(document);
        return nullptr;
    }
    return document;
}

json_t *wdu_json_load_file_ejs(const char *path)
{
    std::string bytes;
    const char *damage;
    wchar_t *wide = oxni_str_utf8_to_unicode(path);
    DWORD error = wide == nullptr ? ERROR_INVALID_NAME : read_file(wide, &bytes);

    oxni_str_free(wide);
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND)
        return nullptr;
    if (error != ERROR_SUCCESS) {
        EJS_WARN("ejs: %s: not read, error %lu\n", path == nullptr ? "(null)" : path, error);
        return nullptr;
    }
    damage = find_damage(bytes);
    if (damage != nullptr) {
        EJS_WARN("ejs: %s: taken as missing: %s\n", path, damage);
        return nullptr;
    }
    return parse(bytes, path);
}

/* Writes and flushes: after ERROR_SUCCESS the bytes are on the disk. */
static DWORD write_file(const wchar_t *path, const std::string &bytes)
{
    DWORD error = ERROR_SUCCESS, written = 0;
    HANDLE file =
        CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);

    if (file == INVALID_HANDLE_VALUE)
        return GetLastError();
    if (!WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr))
        error = GetLastError();
    else if (written != bytes.size())
        error = ERROR_DISK_FULL;
    else if (!FlushFileBuffers(file))
        error = GetLastError();
    CloseHandle(file);
    return error;
}

/* Writes a temporary file completely before it atomically replaces the old one. */
static DWORD replace_file(const std::wstring &path, const std::string &bytes)
{
    std::wstring sibling = path + L".tmp";
    DWORD error = write_file(sibling.c_str(), bytes);

    if (error == ERROR_SUCCESS && !MoveFileExW(sibling.c_str(), path.c_str(),
                                               MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        error = GetLastError();
    if (error != ERROR_SUCCESS)
        (void)DeleteFileW(sibling.c_str()); /* the next write truncates it in any case */
    return error;
}

/* Returns false when the document is no object or memory runs out. */
static bool serialise(json_t *document, std::string *bytes)
{
    ejs_header header;
    char *text = json_is_object(document) ? json_dumps(document, JSON_COMPACT) : nullptr;
    size_t length = text == nullptr ? 0 : strlen(text);

    if (text == nullptr || length > UINT32_MAX - sizeof(header)) {
        oxni_free_(text);
        return false;
    }
    memcpy(header.magic, MAGIC, sizeof(MAGIC));
    header.version = VERSION;
    header.length = static_cast<uint32_t>(length);
    header.crc = oxni_crc32_calc(text, length);
    bytes->assign(reinterpret_cast<const char *>(&header), sizeof(header));
    bytes->append(text, length);
    oxni_free_(text);
    return true;
}

int wdu_json_dump_file_ejs(json_t *document, const char *path)
{
    std::string bytes;
    wchar_t *wide = oxni_str_utf8_to_unicode(path);
    DWORD error = ERROR_INVALID_DATA;

    if (wide != nullptr && serialise(document, &bytes))
        error = replace_file(wide, bytes);
    oxni_str_free(wide);
    if (error != ERROR_SUCCESS)
        EJS_WARN("ejs: %s: not written, error %lu\n", path == nullptr ? "(null)" : path, error);
    return error == ERROR_SUCCESS ? 0 : -1;
}

json_t *wdu_json_object_get_ejs(json_t *object, const char *key)
{
    return json_object_get(object, key);
}

void wdu_json_delete_ejs(json_t *document)
{
    json_decref(document);
}
