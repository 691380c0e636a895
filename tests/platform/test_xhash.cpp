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
        note(value == NULL ? "freed:null" : "freed:" + std::string(static_cast<char *>(value)));
    }
    static int put(oxni_xhash *table, const std::string &key, const char *value)
    {
        return oxni_xhash_insert(table, key.data(), key.size(), const_cast<char *>(value));
    }
    static std::string keys(oxni_xhash *table)
    {
        std::string all;
        for (const oxni_xhash_entry *at = oxni_xhash_first(table); at != NULL;
             at = oxni_xhash_next(table, at))
            all += std::string(static_cast<const char *>(at->key), at->key_length) + " ";
        return all;
    }
    static uint64_t live_blocks()
    {
        oxnih_memory_stats stats;
        oxnih_memory_get_stats(&stats);
        return stats.live_blocks;
    }
};

TEST_F(xhash, insertion_order_survives_replacement_and_growth)
{
    uint64_t before = live_blocks();
    oxni_xhash *table = oxni_xhash_create(freed, 0);
    std::string expected;

    for (int i = 0; i < 400; i++) { /* beyond the first growth of the buckets */
        EXPECT_EQ(0, put(table, std::to_string(i), "v"));
        expected += std::to_string(i) + " ";
    }
    EXPECT_EQ("", notes());
    EXPECT_EQ(0, put(table, "7", "other"));
    EXPECT_EQ("freed:v", notes());
    EXPECT_EQ(expected, keys(table));
    EXPECT_EQ(400U, oxni_xhash_count(table));
    oxni_xhash_destroy(table);
    EXPECT_EQ(before, live_blocks());
}

TEST_F(xhash, keys_are_byte_strings)
{
    oxni_xhash *table = oxni_xhash_create(NULL, 0);
    char key[] = "ab";
    void *value = NULL;
    const struct {
        const char *row;
        std::string key;
        int result;
    } rows[] = {
        {"the same bytes",        std::string("ab"),  0             },
        {"its terminator counts", std::string("ab\0", 3),             -1},
        {"a part of it",                       std::string("a"),                            -1   },
        {"a zero inside",                       std::string("x\0y",                           3),0},
        {"other behind a zero",                      std::string("x\0z",                                        3),                                     -1},
        {"the empty key",                     std::string(),0},
    };

    EXPECT_EQ(0, oxni_xhash_insert(table, key, 2, key));
    EXPECT_EQ(0, put(table, std::string("x\0y", 3), "v"));
    EXPECT_EQ(0, put(table, "", "v"));
    key[0] = 'z'; /* the table has a copy */
    for (const auto &row : rows) {
        EXPECT_EQ(row.result, oxni_xhash_search(table, row.key.data(), row.key.size(), &value))
            << row.row;
        EXPECT_EQ(row.result == 0, value != NULL) << row.row;
    }
    oxni_xhash_destroy(table);
}

TEST_F(xhash, null_values_and_null_arguments)
{
    oxni_xhash *table = oxni_xhash_create(freed, 0);
    void *value = table;

    EXPECT_EQ(0, put(table, "n", NULL));
    EXPECT_EQ(0, oxni_xhash_search(table, "n", 1, &value));
    EXPECT_EQ(nullptr, value);
    EXPECT_EQ(0, put(table, "n", "v")); /* frees the null one */
    EXPECT_EQ(0, put(table, "n", NULL));
    EXPECT_EQ(0, oxni_xhash_delete(table, "n", 1));
    EXPECT_EQ("freed:null freed:v freed:null", notes());
    EXPECT_EQ(-1, oxni_xhash_delete(table, "n", 1));
    EXPECT_EQ(-1, oxni_xhash_insert(table, NULL, 1, NULL));
    EXPECT_EQ(-1, oxni_xhash_insert(NULL, "k", 1, NULL));
    EXPECT_EQ(-1, oxni_xhash_search(NULL, "k", 1, &value));
    EXPECT_EQ(-1, oxni_xhash_delete(NULL, "k", 1));
    EXPECT_EQ(0U, oxni_xhash_count(NULL));
    EXPECT_EQ(nullptr, oxni_xhash_first(table));
    EXPECT_EQ(nullptr, oxni_xhash_first(NULL));
    oxni_xhash_destroy(NULL);
    oxni_xhash_destroy(table);
}

TEST_F(xhash, the_same_value_put_again_is_not_freed)
{
    oxni_xhash *table = oxni_xhash_create(freed, 0);
    char value[] = "v";

    put(table, "k", value);
    put(table, "k", value);
    EXPECT_EQ("", notes());
    oxni_xhash_destroy(table);
    EXPECT_EQ("freed:v", notes());
}

TEST_F(xhash, entries_deleted_while_iterating)
{
    const struct {
        const char *row;
        const char *at;      /* when the iteration stands there */
        const char *deleted; /* these go, in this order */
        const char *added;   /* and this comes */
        const char *visited;
    } rows[] = {
        {"the current one",                  "b", "b",    "",  "abcd" },
        {"the first one",                    "a", "a",    "",  "abcd" },
        {"the last one",                     "d", "d",    "",  "abcd" },
        {"the next one",                     "b", "c",    "",  "abd"  },
        {"the current, then the next",       "b", "bc",   "",  "abd"  },
        {"the next, then the current",       "b", "cb",   "",  "abd"  },
        {"the current and all behind it",    "b", "bcd",  "",  "ab"   },
        {"all of them",                      "b", "abcd", "",  "ab"   },
        {"the last, while another is added", "d", "d",    "e", "abcde"},
        {"the current, which is added anew", "b", "b",    "b", "abcdb"},
    };

    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD); /* a freed entry that is touched faults */
    for (const auto &row : rows) {
        uint64_t before = live_blocks();
        oxni_xhash *table = oxni_xhash_create(NULL, 0);
        std::string visited;
        bool done = false;
        for (char key : std::string("abcd"))
            put(table, std::string(1, key), NULL);
        for (const oxni_xhash_entry *at = oxni_xhash_first(table); at != NULL;
             at = oxni_xhash_next(table, at)) {
            visited += *static_cast<const char *>(at->key);
            if (done || visited.back() != row.at[0])
                continue;
            done = true;
            for (char key : std::string(row.deleted))
                EXPECT_EQ(0, oxni_xhash_delete(table, &key, 1)) << row.row;
            if (row.added[0] != '\0')
                put(table, row.added, NULL);
        }
        EXPECT_EQ(row.visited, visited) << row.row;
        oxni_xhash_destroy(table);
        EXPECT_EQ(before, live_blocks()) << row.row;
    }
}

TEST_F(xhash, a_failing_allocation_leaves_the_table_as_it_was)
{
    uint64_t nth = 0;

    /* Each allocation fails once, until there is none left to fail. */
    for (int failures = 1; failures != 0;) {
        uint64_t before = live_blocks();
        std::string expected;
        failures = 0;
        nth++;

        oxnih_memory_fail(nth, 0);
        oxni_xhash *table = oxni_xhash_create(freed, 0);
        for (int i = 0; table != NULL && i < 400; i++) {
            if (put(table, std::to_string(i), "v") == 0)
                expected += std::to_string(i) + " ";
            else
                failures++;
        }
        failures += table == NULL;
        EXPECT_LE(failures, 1) << nth;
        EXPECT_EQ(expected, table == NULL ? "" : keys(table)) << nth;
        EXPECT_EQ("", notes()) << nth; /* a refused value stays the caller's */
        oxni_xhash_destroy(table);
        notes();
        ASSERT_EQ(before, live_blocks()) << nth;
    }
    EXPECT_GT(nth, 404U); /* the table, its buckets and their growth, 400 entries */
}
} // namespace
