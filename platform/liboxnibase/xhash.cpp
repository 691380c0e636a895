/* Hash tables, allocated with the platform's allocator. A table belongs to its user's thread. */
#include "base.h"
#include "host.h"

#include <cstring>

#include <oxni/base/xhash.h>

/* Without memory uthash leaves the table unchanged and clears the flag, which add_node checks. */
#define HASH_NONFATAL_OOM            1
#define uthash_nonfatal_oom(element) (added = false)
#define uthash_malloc(size)          memory_allocate(size, caller)
#define uthash_free(block, size)     memory_free(block, caller)
#include <uthash.h>
#pragma GCC diagnostic ignored "-Wold-style-cast" /* in the macros of uthash.h */

/* The key's bytes follow the node in the same block. */
struct node {
    oxni_xhash_entry entry;
    UT_hash_handle hh;
};

struct oxni_xhash {
    node *head;
    oxni_xhash_free_fn value_free;
    /* The current entry of an iteration. When it is deleted, its block and its successor are kept
     * until the iteration advances. */
    node *current;
    bool current_deleted;
    node *successor;
};

static node *node_of(const oxni_xhash_entry *entry)
{
    return reinterpret_cast<node *>(const_cast<oxni_xhash_entry *>(entry));
}

static node *find(oxni_xhash *table, const void *key, size_t key_length)
{
    node *found = nullptr;

    if (table != nullptr && key != nullptr)
        HASH_FIND(hh, table->head, key, key_length, found);
    return found;
}

static void release_value(oxni_xhash *table, void *value)
{
    if (table->value_free != nullptr)
        table->value_free(value);
}

static void forget_deleted(oxni_xhash *table, const void *caller)
{
    if (!table->current_deleted)
        return;
    memory_free(table->current, caller);
    table->current_deleted = false;
    table->successor = nullptr;
}

/* Removes the node from the table. Keeps its block when it is the iteration's current entry. */
static void unlink_node(oxni_xhash *table, node *old, const void *caller)
{
    if (table->current_deleted && table->successor == old)
        table->successor = static_cast<node *>(old->hh.next);
    if (table->current == old) {
        table->current_deleted = true;
        table->successor = static_cast<node *>(old->hh.next);
    }
    HASH_DELETE(hh, table->head, old);
    if (table->current != old)
        memory_free(old, caller);
}

oxni_xhash *oxni_xhash_create(oxni_xhash_free_fn value_free, unsigned flags)
{
    oxni_xhash *table =
        static_cast<oxni_xhash *>(memory_allocate(sizeof(oxni_xhash), BASE_CALLER()));

    if (flags != 0)
        oxnih_complain("oxni_xhash_create: flags 0x%x, expected 0", flags);
    if (table != nullptr)
        table->value_free = value_free;
    return table;
}

void oxni_xhash_destroy(oxni_xhash *table)
{
    const void *caller = BASE_CALLER();

    if (table == nullptr)
        return;
    while (table->head != nullptr) {
        node *first = table->head;
        void *value = first->entry.value;
        unlink_node(table, first, caller);
        release_value(table, value);
    }
    forget_deleted(table, caller);
    memory_free(table, caller);
}

int oxni_xhash_search(oxni_xhash *table, const void *key, size_t key_length, void **value)
{
    const node *found = find(table, key, key_length);

    if (value != nullptr)
        *value = found == nullptr ? nullptr : found->entry.value;
    return found == nullptr ? -1 : 0;
}

static int add_node(oxni_xhash *table, const void *key, size_t key_length, void *value,
                    const void *caller)
{
    node *fresh = static_cast<node *>(memory_allocate(sizeof(node) + key_length, caller));
    bool added = true;

    if (fresh == nullptr)
        return -1;
    memcpy(fresh + 1, key, key_length);
    fresh->entry = {fresh + 1, key_length, value};
    HASH_ADD_KEYPTR(hh, table->head, fresh->entry.key, key_length, fresh);
    if (!added) {
        memory_free(fresh, caller);
        return -1;
    }
    if (table->current_deleted && table->successor == nullptr)
        table->successor = fresh;
    return 0;
}

int oxni_xhash_insert(oxni_xhash *table, const void *key, size_t key_length, void *value)
{
    node *found = find(table, key, key_length);
    void *old;

    if (table == nullptr || key == nullptr)
        return -1;
    if (found == nullptr)
        return add_node(table, key, key_length, value, BASE_CALLER());
    old = found->entry.value;
    found->entry.value = value;
    if (old != value)
        release_value(table, old);
    return 0;
}

int oxni_xhash_delete(oxni_xhash *table, const void *key, size_t key_length)
{
    node *found = find(table, key, key_length);
    void *value;

    if (found == nullptr)
        return -1;
    value = found->entry.value;
    unlink_node(table, found, BASE_CALLER());
    /* Last, so that the value_free function sees the table without the entry. */
    release_value(table, value);
    return 0;
}

size_t oxni_xhash_count(oxni_xhash *table)
{
    return table == nullptr ? 0 : HASH_COUNT(table->head);
}

static const oxni_xhash_entry *stand_at(oxni_xhash *table, node *at, const void *caller)
{
    forget_deleted(table, caller);
    table->current = at;
    if (at == nullptr)
        return nullptr;
    /* Entries are scattered in memory: prefetch the next one and its key while the caller uses this
     * one. */
    if (at->hh.next != nullptr) {
        __builtin_prefetch(at->hh.next);
        __builtin_prefetch(static_cast<node *>(at->hh.next) + 1);
    }
    return &at->entry;
}

const oxni_xhash_entry *oxni_xhash_first(oxni_xhash *table)
{
    return table == nullptr ? nullptr : stand_at(table, table->head, BASE_CALLER());
}

const oxni_xhash_entry *oxni_xhash_next(oxni_xhash *table, const oxni_xhash_entry *entry)
{
    node *from = node_of(entry);

    if (table == nullptr || entry == nullptr)
        return nullptr;
    if (table->current_deleted && table->current == from)
        return stand_at(table, table->successor, BASE_CALLER());
    return stand_at(table, static_cast<node *>(from->hh.next), BASE_CALLER());
}
