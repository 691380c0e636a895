/* Promises about the log, memory, hash tables and strings. */
#include "check.h"

#include <cstring>

#include <algorithm>
#include <filesystem>
#include <vector>

#include <oxni/base/log.h>
#include <oxni/base/memory.h>
#include <oxni/base/path.h>
#include <oxni/base/str.h>
#include <oxni/base/xhash.h>

/* Opens the log, unless an earlier row did: a process has one log. */
static void open_log()
{
    SAME(0, oxni_autolog_init(path_of("logs").c_str(), 5));
}

/* Whether a text is in a file of that log. */
static bool logged(const std::string &text)
{
    for (const auto &file :
         std::filesystem::directory_iterator(std::filesystem::u8path(path_of("logs"))))
        if (file_bytes(file.path().u8string()).find(text) != std::string::npos)
            return true;
    return false;
}

PROMISE(log, "oxni_log_output",
        "level, a constant format and its arguments: one whole line with its line feed")
{
    open_log();
    for (size_t length : {0U, 1019U, 1020U, 1021U, 3000000U}) {
        const std::string text(length, 'x');
        check_case(std::to_string(length) + " characters");
        oxni_log_output(OXNI_LOG_INFO, "<%s|%d>\n", text.c_str(), -7);
        HOLDS(logged("<" + text + "|-7>\n"));
    }
}

PROMISE(log, "oxni_log_output",
        "Wide text (`%S`) is written as UTF-8 on every code page; a missing line feed is added")
{
    static const wchar_t path[] = L"C:\\\x65e5\x672c\xd83d\xde00.dmp";
    const std::string utf8 = "C:\\\xe6\x97\xa5\xe6\x9c\xac\xf0\x9f\x98\x80.dmp";
    const wchar_t *volatile none = nullptr;

    open_log();
    oxni_log_output(OXNI_LOG_INFO, "open %S failed %x %%%d.\n", path, 5U, -7);
    HOLDS(logged("open " + utf8 + " failed 5 %-7.\n"));
    oxni_log_output(OXNI_LOG_INFO, "[%ls] [%s] %I64d %.1f", path, utf8.c_str(), 1LL << 40, 2.5);
    HOLDS(logged("[" + utf8 + "] [" + utf8 + "] 1099511627776 2.5\n"));
    oxni_log_output(OXNI_LOG_INFO, "[%.4ls] [%.*ls] [%*d] [%-4S] [%S] [%C]\n", path, 3, L"abcd", 4,
                    5, L"x", none, L'\x65e5');
    HOLDS(logged("[C:\\\xe6\x97\xa5] [abc] [   5] [x   ] [(null)] [\xe6\x97\xa5]\n"));
    oxni_log_output(OXNI_LOG_INFO, "lone %S\n", L"\xd83d.");
    HOLDS(logged("lone \xef\xbf\xbd.\n"));
}

PROMISE(log, "oxni_log_level_get", "0 error and fatal, 1 warn, 2 info, 3 debug")
{
    HOLDS(oxni_log_level_get() >= 0 && oxni_log_level_get() <= 3);
}

PROMISE(log, "oxni_log_is_regestered", "0: the plug-in opens the log first")
{
    open_log();
    HOLDS(oxni_log_is_regestered() != 0);
    SAME(0, oxni_autolog_init(nullptr, 5)); /* already open */
}

PROMISE(log, "oxni_autolog_init", "a directory that may begin with \"@\"")
{
    char root[260] = "";

    oxni_dirutils_path_transform("@", root, sizeof(root));
    check_able(path_of("") == root + std::string("/"), "an installation directory of its own");
    SAME(0, oxni_autolog_init("@/logs", 5));
    oxni_log_output(OXNI_LOG_INFO, "below @");
    HOLDS(logged("below @\n"));
}

PROMISE(log, "oxni_log_dir",
        "writes the base directory of logs and configuration, without a trailing slash; nonzero is "
        "success")
{
    char folder[260] = "#", small[3] = "#";
    HOLDS(oxni_log_dir(folder, sizeof(folder)) != 0);
    HOLDS(folder[0] != '\0' && strchr("/\\", folder[strlen(folder) - 1]) == nullptr);
    SAME(0, oxni_log_dir(small, sizeof(small)));
    SAME("", small);
}

static char *make(size_t size)
{
    return static_cast<char *>(oxni_zero_malloc_(size));
}

PROMISE(memory, "oxni_zero_malloc_", "bytes; a zeroed block, or NULL")
{
    for (unsigned size : {0U, 1U, 15U, 4096U, 4097U, 200000U}) {
        char *block = make(size), *other = make(0);
        SAME(std::string(size, '\0'), std::string(block, size));
        HOLDS(other != nullptr && other != block); /* also for 0 bytes */
        memset(block, 'x', size);
        oxni_free_(block);
        oxni_free_(other);
    }
    check_case("more than there is");
    SAME(static_cast<void *>(nullptr), static_cast<void *>(make(SIZE_MAX)));
}

PROMISE(memory, "oxni_ralloc_",
        "the block of the event-log reader and a larger size; NULL leaves the block unchanged; "
        "added bytes are zero")
{
    const size_t sizes[] = {0, 1, 15, 4096, 4097, 200000};

    for (size_t size : sizes)
        for (size_t then : sizes) {
            char *block = make(size);
            memset(block, 'x', size);
            block = static_cast<char *>(oxni_ralloc_(block, then));
            std::string kept(std::min(size, then), 'x');
            kept.resize(then);
            check_case(std::to_string(size) + " to " + std::to_string(then) + " bytes");
            SAME(kept, std::string(block, then));
            oxni_free_(block);
        }
}

PROMISE(memory, "oxni_ralloc_", "NULL leaves the block unchanged")
{
    char *block = oxni_strdup("text");
    SAME(static_cast<void *>(nullptr), oxni_ralloc_(block, SIZE_MAX));
    SAME("text", block);
    oxni_free_(block);
}

PROMISE(memory, "oxni_free_", "any block of this allocator, or NULL")
{
    oxni_free_(nullptr);
    oxni_free_(make(0));
    oxni_free_(oxni_strdup("text"));
}

PROMISE(memory, "oxni_strdup", "text or NULL; NULL for NULL")
{
    char *copy = oxni_strdup("a\xc3\xa4"), *empty = oxni_strdup("");
    SAME("a\xc3\xa4", copy);
    SAME("", empty);
    SAME(static_cast<const char *>(nullptr), oxni_strdup(nullptr));
    oxni_free_(copy);
    oxni_free_(empty);
}

PROMISE_ENDS(memory, "oxni_out_of_memory_", "does not return, ends the process with exit code 0")
{
    oxni_out_of_memory_("x.cpp", 12);
}

static void freed(void *value)
{
    note(value == nullptr ? "null" : static_cast<char *>(value));
}

static int put(oxni_xhash *table, const std::string &key, const char *value)
{
    return oxni_xhash_insert(table, key.data(), key.size(), const_cast<char *>(value));
}

static std::string keys(oxni_xhash *table)
{
    std::string all;
    for (const oxni_xhash_entry *at = oxni_xhash_first(table); at != nullptr;
         at = oxni_xhash_next(table, at))
        all += std::string(static_cast<const char *>(at->key), at->key_length) + " ";
    return all;
}

PROMISE(tables, "oxni_xhash_search",
        "key of explicit length: 8 bytes of a handle, or text with its terminator; 0 when found. "
        "Otherwise -1 and NULL")
{
    oxni_xhash *table = oxni_xhash_create(nullptr, 0);
    char key[] = "ab";
    void *value = nullptr;

    for (const auto &[text, length] : {
             std::make_pair("ab", 2U), {"x\0y", 3U},
               {"",     0U}
    })
        SAME(0, oxni_xhash_insert(table, text, length, key));
    SAME(0, oxni_xhash_search(table, "ab", 2, &value));
    SAME(static_cast<void *>(key), value);
    SAME(0, oxni_xhash_search(table, "x\0y", 3, nullptr));
    SAME(-1, oxni_xhash_search(table, "x\0z", 3, nullptr));
    SAME(0, oxni_xhash_search(table, "", 0, nullptr));
    check_case("an unknown key");
    SAME(-1, oxni_xhash_search(table, "ab", 3, &value));
    SAME(static_cast<void *>(nullptr), value);
    oxni_xhash_destroy(table);
}

PROMISE(tables, "oxni_xhash_insert",
        "key and value, which may be NULL; not 0: the plug-in frees the value itself; an existing "
        "key keeps its position and its old value is freed")
{
    oxni_xhash *table = oxni_xhash_create(freed, 0);
    char same[] = "same";

    put(table, "n", nullptr);
    put(table, "m", "b");
    put(table, "n", "a");
    SAME("n m ", keys(table));
    put(table, "n", same);
    put(table, "n", same); /* the same value is not freed */
    SAME("null a", notes());
    oxni_xhash_destroy(table);
    SAME("same b", notes());
}

PROMISE(tables, "oxni_xhash_delete",
        "key, which may be missing; the current entry of an iteration may be deleted")
{
    static const struct {
        char at;             /* current entry of the iteration at the change */
        const char *deleted; /* deleted in this order */
        const char *added;   /* then inserted */
        const char *visited;
    } rows[] = {
        {'b', "b",    "",  "abcd" },
        {'b', "c",    "",  "abd"  },
        {'b', "bc",   "",  "abd"  },
        {'b', "cb",   "",  "abd"  },
        {'b', "abcd", "",  "ab"   },
        {'d', "d",    "e", "abcde"},
        {'b', "b",    "b", "abcdb"},
    };

    for (const auto &row : rows) {
        oxni_xhash *table = oxni_xhash_create(nullptr, 0);
        std::string visited;
        bool done = false;
        check_case(row.deleted + std::string(" deleted at ") + row.at);
        for (char key : std::string("abcd"))
            put(table, std::string(1, key), nullptr);
        for (const oxni_xhash_entry *at = oxni_xhash_first(table); at != nullptr;
             at = oxni_xhash_next(table, at)) {
            visited += *static_cast<const char *>(at->key);
            if (done || visited.back() != row.at)
                continue;
            done = true;
            for (char key : std::string(row.deleted))
                SAME(0, oxni_xhash_delete(table, &key, 1));
            if (row.added[0] != '\0')
                put(table, row.added, nullptr);
        }
        SAME(row.visited, visited);
        oxni_xhash_destroy(table);
    }
}

PROMISE(tables, "oxni_xhash_create", "a function that frees values, or NULL; flags 0")
{
    oxni_xhash *table = oxni_xhash_create(nullptr, 0);
    HOLDS(table != nullptr);
    put(table, "a", "value that stays");
    SAME(0, oxni_xhash_delete(table, "a", 1));
    oxni_xhash_destroy(table);
}

PROMISE(tables, "oxni_xhash_destroy", "stolen; the function frees the values")
{
    oxni_xhash *table = oxni_xhash_create(freed, 0);
    for (const char *one : {"c", "a", "b"})
        put(table, one, one);
    oxni_xhash_destroy(table);
    SAME("c a b", notes());
    oxni_xhash_destroy(nullptr);
}

PROMISE(tables, "oxni_xhash_insert", "key copied, value stolen")
{
    oxni_xhash *table = oxni_xhash_create(freed, 0);
    char key[] = "ab";
    SAME(0, oxni_xhash_insert(table, key, 2, key));
    key[0] = 'z';
    SAME(0, oxni_xhash_search(table, "ab", 2, nullptr));
    SAME("ab ", keys(table));
    oxni_xhash_destroy(table);
    SAME("zb", notes());
}

PROMISE(tables, "oxni_xhash_delete", "the function frees the value")
{
    oxni_xhash *table = oxni_xhash_create(freed, 0);
    put(table, "a", "x");
    SAME(-1, oxni_xhash_delete(table, "b", 1));
    SAME(0, oxni_xhash_delete(table, "a", 1));
    SAME("x", notes());
    SAME(-1, oxni_xhash_delete(table, "a", 1));
    oxni_xhash_destroy(table);
    SAME("", notes());
}

PROMISE(tables, "oxni_xhash_count", "number of entries; 0 for NULL")
{
    oxni_xhash *table = oxni_xhash_create(nullptr, 0);
    for (int i = 0; i < 400; i++)
        put(table, std::to_string(i % 300), nullptr);
    SAME(300, oxni_xhash_count(table));
    SAME(0, oxni_xhash_count(nullptr));
    oxni_xhash_destroy(table);
}

PROMISE(tables, "oxni_xhash_first", "every entry once, in insertion order")
{
    oxni_xhash *table = oxni_xhash_create(nullptr, 0);
    std::string expected;
    SAME("", keys(table));
    for (int i = 0; i < 400; i++) {
        put(table, std::to_string(i * 7919 % 400), nullptr);
        expected += std::to_string(i * 7919 % 400) + " ";
    }
    SAME(expected, keys(table));
    oxni_xhash_destroy(table);
}

static void truncated_texts(bool print)
{
    static const struct {
        unsigned size;
        const char *text;
    } rows[] = {
        {4, "abc"},
        {3, "ab" },
        {1, ""   },
        {0, "###"},
    };

    for (const auto &row : rows) {
        char buffer[16] = "###";
        check_case("size " + std::to_string(row.size));
        if (print)
            SAME(row.size > 3 ? 3 : -1, oxni_str_snprintf(buffer, row.size, "%s", "abc"));
        else
            SAME(3, oxni_strlcpy(buffer, "abc", row.size));
        SAME(row.text, buffer);
    }
}

/* Every length, limit and alignment, before an inaccessible page. */
PROMISE(strings, "oxni_wcsnlen",
        "text of the event log, which may lack its terminator and may be at an odd address, and "
        "the maximum length to read")
{
    static constexpr size_t PAGE = 4096, LONGEST = 20;
    char *page = static_cast<char *>(VirtualAlloc(nullptr, 2 * PAGE, MEM_RESERVE, PAGE_NOACCESS));

    VirtualAlloc(page, PAGE, MEM_COMMIT, PAGE_READWRITE);
    for (size_t skew = 0; skew < 8; skew++)
        for (size_t length = 0; length <= LONGEST; length++)
            for (size_t limit = 0; limit <= LONGEST + 1; limit++) {
                char *text = page + PAGE - skew - (std::min(length + 1, limit)) * sizeof(wchar_t);
                memset(page, 'x', PAGE);
                if (length < limit)
                    memset(text + length * sizeof(wchar_t), 0, sizeof(wchar_t));
                SAME(std::min(length, limit),
                     oxni_wcsnlen(reinterpret_cast<const wchar_t *>(text), limit));
            }
    VirtualFree(page, 0, MEM_RELEASE);
    SAME(0, oxni_wcsnlen(nullptr, 5));
}

PROMISE(strings, "oxni_strlcpy",
        "target and its size: truncated to fit, always terminated; the source's length")
{
    truncated_texts(false);
}

PROMISE(strings, "oxni_strcmp", "two texts, either may be NULL: byte order, NULL first")
{
    HOLDS(oxni_strcmp("\xc3\xa4", "z") > 0); /* unsigned */
    HOLDS(oxni_strcmp("a", "B") > 0);
    HOLDS(oxni_strcmp(nullptr, "") < 0 && oxni_strcmp("", nullptr) > 0);
    SAME(0, oxni_strcmp(nullptr, nullptr));
    SAME(0, oxni_strcmp("ab", "ab"));
}

PROMISE(strings, "oxni_str_snprintf", "truncated to fit, always terminated; -1 when truncated")
{
    truncated_texts(true);
}

PROMISE(strings, "oxni_str_snprintf", "constant format of the C runtime (`%S`, `%I64d`)")
{
    char buffer[64];
    SAME(15, oxni_str_snprintf(buffer, sizeof(buffer), "%S %I64d", L"a", 1LL << 40));
    SAME("a 1099511627776", buffer);
}

PROMISE(strings, "oxni_wcscmp", "two provider names; case-sensitive, either may be NULL")
{
    HOLDS(oxni_wcscmp(L"System", L"system") < 0);
    HOLDS(oxni_wcscmp(nullptr, L"") < 0 && oxni_wcscmp(L"", nullptr) > 0);
    SAME(0, oxni_wcscmp(L"a", L"a"));
}

PROMISE(strings, "oxni_str_utf8_to_unicode", "a path; NULL for invalid UTF-8")
{
    wchar_t *wide = oxni_str_utf8_to_unicode("a\xf0\x9f\x98\x80");
    HOLDS(wide != nullptr && wcscmp(wide, L"a\xd83d\xde00") == 0);
    oxni_str_free(wide);
    for (const char *text : {"\xff", "a\xe6\x97", static_cast<const char *>(nullptr)})
        SAME(static_cast<const wchar_t *>(nullptr), oxni_str_utf8_to_unicode(text));
}

PROMISE(strings, "oxni_str_free", "such a text, or NULL")
{
    oxni_str_free(nullptr);
    oxni_str_free(oxni_str_utf8_to_unicode(""));
}
