#include "platform_test.h"

#include <oxni/base/memory.h>
#include <oxni/base/xhash.h>

namespace
{
class xhash : public platform_test
{
  protected:
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
    void SetUp() override
    {
        platform_test::SetUp();
        oxnih_memory_set_mode(OXNIH_MEMORY_GUARD); /* an access to a freed entry faults */
    }
};

TEST_F(xhash, keys_are_byte_strings)
{
    oxni_xhash *table = oxni_xhash_create(nullptr, 0);
    char key[] = "ab";
    void *value;

    EXPECT_EQ(0, oxni_xhash_insert(table, key, 2, key));
    EXPECT_EQ(0, oxni_xhash_insert(table, "x\0y", 3, key));
    EXPECT_EQ(0, oxni_xhash_insert(table, "", 0, key));
    key[0] = 'z'; /* the table has a copy */
    EXPECT_EQ(0, oxni_xhash_search(table, "ab", 2, &value));
    EXPECT_EQ(key, value);
    EXPECT_EQ(-1, oxni_xhash_search(table, "ab", 3, &value));
    EXPECT_EQ(nullptr, value);
    EXPECT_EQ(0, oxni_xhash_search(table, "x\0y", 3, nullptr));
    EXPECT_EQ(-1, oxni_xhash_search(table, "x\0z", 3, nullptr));
    EXPECT_EQ(0, oxni_xhash_search(table, "", 0, nullptr));
    oxni_xhash_destroy(table);
}

TEST_F(xhash, values_are_freed_once)
{
    oxni_xhash *table = oxni_xhash_create(freed, 0);
    char same[] = "same";

    EXPECT_EQ(0, put(table, "n", nullptr));
    EXPECT_EQ(0, put(table, "m", "b"));
    EXPECT_EQ(0, put(table, "n", "a"));
    EXPECT_EQ("n m ", keys(table)); /* "n" keeps its position */
    EXPECT_EQ(0, put(table, "n", same));
    EXPECT_EQ(0, put(table, "n", same)); /* the same value is not freed */
    EXPECT_EQ("null a", notes());
    EXPECT_EQ(0, oxni_xhash_delete(table, "n", 1));
    EXPECT_EQ(-1, oxni_xhash_delete(table, "n", 1));
    EXPECT_EQ(1U, oxni_xhash_count(table));
    oxni_xhash_destroy(table);
    EXPECT_EQ("same b", notes());
}

TEST_F(xhash, entries_deleted_while_iterating)
{
    const struct {
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
        for (char key : std::string("abcd"))
            put(table, std::string(1, key), nullptr);
        for (const oxni_xhash_entry *at = oxni_xhash_first(table); at != nullptr;
             at = oxni_xhash_next(table, at)) {
            visited += *static_cast<const char *>(at->key);
            if (done || visited.back() != row.at)
                continue;
            done = true;
            for (char key : std::string(row.deleted))
                EXPECT_EQ(0, oxni_xhash_delete(table, &key, 1)) << row.visited;
            if (row.added[0] != '\0')
                put(table, row.added, nullptr);
        }
        EXPECT_EQ(row.visited, visited) << row.deleted;
        oxni_xhash_destroy(table);
    }
}

/* Each allocation fails once, including those of bucket growth. The table is unchanged, in
 * insertion order. */
TEST_F(xhash, a_failed_allocation_leaves_the_table_unchanged)
{
    uint64_t nth = 0;

    oxnih_memory_set_mode(OXNIH_MEMORY_PLAIN);
    for (int failures = 1; failures != 0;) {
        std::string expected;
        oxnih_memory_fail(++nth, 0);
        oxni_xhash *table = oxni_xhash_create(freed, 0);
        failures = table == nullptr;
        for (int i = 0; table != nullptr && i < 400; i++)
            if (put(table, std::to_string(i), "v") == 0)
                expected += std::to_string(i) + " ";
            else
                failures++;
        EXPECT_LE(failures, 1) << nth;
        EXPECT_EQ(expected, table == nullptr ? "" : keys(table)) << nth;
        EXPECT_EQ("", notes()) << nth; /* the caller still owns a value that was not inserted */
        oxni_xhash_destroy(table);
        notes();
        ASSERT_EQ(0U, memory_stats().live_blocks) << nth;
    }
    EXPECT_GT(nth, 404U); /* the table, its buckets, their growth, and 400 entries */
}
} // namespace
