/* Reading of dumps of the memory: the list of modules and the stack as the kernel keeps them. */
#include "kernel_dump_internal.h"
#include "memory_dump.h"

#include <algorithm>

/* More than ten times what a Windows with very many drivers loads: it bounds the work. */
static constexpr uint32_t MODULES_MAX = 4096u;
/* A kernel stack has 24 KiB, and an expanded one little more than this: frames further out are not
 * among the few innermost ones that a client asks for. The end of the stack is not looked up; the page
 * after it is not mapped. */
static constexpr uint32_t STACK_BYTES_MAX = 0x10000u;

/* The link of an entry that a walk follows. */
enum list_direction {
    LIST_FORWARD = 0,
    LIST_BACKWARD = 1,
};

static bool read_path_end(const memory_dump &memory, const file_span &entry, uint64_t field,
                          std::u16string *end)
{
    const size_t bytes = entry.at<uint16_t>(field + TEXT_BYTES);
    const uint64_t text = entry.at<uint64_t>(field + TEXT_ADDRESS);

    if (bytes % 2 != 0 || bytes > entry.at<uint16_t>(field + TEXT_ROOM))
        return false;
    end->assign(std::min<size_t>(bytes / 2, KERNEL_DUMP_PATH_END_CHARS), u'\0');
    return memory_dump_read(memory, text + bytes - 2 * end->size(), &(*end)[0], 2 * end->size()) ==
           MEMORY_OK;
}

/* From the file's name or, where that is missing, from its path; unchanged when both are. */
static void read_name(const memory_dump &memory, const file_span &entry, kernel_dump_module *module)
{
    for (const uint64_t field : {MEMORY_NAME, MEMORY_PATH}) {
        std::u16string end;

        if (read_path_end(memory, entry, field, &end) &&
            kernel_dump_file_name(end, &module->name, &module->file) && !module->name.empty())
            return;
    }
}

static const char *add_entry(const memory_dump &memory, uint64_t address, kernel_dump *dump,
                             size_t *nameless)
{
    uint8_t bytes[MEMORY_ENTRY_BYTES];
    const file_span entry = {bytes, sizeof bytes};
    const enum memory_result result = memory_dump_read(memory, address, bytes, sizeof bytes);

    if (result != MEMORY_OK)
        return memory_result_text(result);
    kernel_dump_module module = {"", "", entry.at<uint64_t>(MEMORY_BASE),
                                 entry.at<uint32_t>(MEMORY_SIZE), 0};

    read_name(memory, entry, &module);
    /* Without it only the size distinguishes builds, so an entry whose end is missing counts too. */
    if (memory_dump_read(memory, address + MEMORY_TIME_STAMP, &module.time_stamp,
                         sizeof module.time_stamp) != MEMORY_OK)
        module.time_stamp = 0;
    *nameless += module.name.empty();
    if (!kernel_dump_add_module(dump, module))
        return "an image does not fit into the address space";
    return nullptr;
}

/* Adds the entries from the head on in one direction. An entry counts only when its other link points
 * to the previous one, so a damaged link leads neither off the list nor, since no entry can point back
 * to two, into a circle. Result: why the walk ended before it reached the head again; NULL: it did. */
static const char *walk_list(const memory_dump &memory, enum list_direction direction,
                             kernel_dump *dump, size_t *nameless)
{
    const uint64_t head = dump->loaded_modules;
    uint64_t from = head;
    uint64_t links[2];
    enum memory_result result = memory_dump_read(memory, head, links, sizeof links);

    while (result == MEMORY_OK) {
        const uint64_t at = links[direction];
        const char *fault;

        result = memory_dump_read(memory, at + MEMORY_NEXT, links, sizeof links);
        if (result != MEMORY_OK)
            break;
        if (links[1 - direction] != from)
            return "an entry does not point back to the previous one";
        if (at == head)
            return nullptr;
        if (dump->modules.size() == MODULES_MAX)
            return "there are too many entries";
        fault = add_entry(memory, at, dump, nameless);
        if (fault != nullptr)
            return fault;
        from = at;
    }
    return memory_result_text(result);
}

/* Reads a broken list from both ends. */
static void read_modules(const memory_dump &memory, kernel_dump *dump)
{
    size_t nameless = 0;
    const char *fault = walk_list(memory, LIST_FORWARD, dump, &nameless);
    const size_t from_start = dump->modules.size();

    if (fault != nullptr)
        (void)walk_list(memory, LIST_BACKWARD, dump, &nameless);
    if (dump->modules.empty())
        kernel_dump_refuse(KERNEL_DUMP_NO_MODULES,
                           "no entry of the list of modules at " +
                               kernel_dump_hex(dump->loaded_modules) +
                               " can be read: " + (fault != nullptr ? fault : "the list is empty"));
    if (fault != nullptr)
        dump->gaps.push_back("the list of modules is incomplete, " + std::to_string(from_start) +
                             " are read from its start and " +
                             std::to_string(dump->modules.size() - from_start) +
                             " from its end: " + fault);
    if (nameless > 0)
        dump->gaps.push_back("the names of " + std::to_string(nameless) +
                             " modules cannot be read");
}

static void read_stack(const memory_dump &memory, kernel_dump *dump)
{
    std::vector<uint8_t> &stack = dump->stack;

    dump->stack_start = dump->rsp;
    while (stack.size() < STACK_BYTES_MAX) {
        const size_t got = stack.size();
        const uint64_t at = dump->rsp + got;
        const size_t part = static_cast<size_t>(
            std::min<uint64_t>(STACK_BYTES_MAX - got, MEMORY_PAGE_BYTES - at % MEMORY_PAGE_BYTES));

        stack.resize(got + part);
        const enum memory_result result = memory_dump_read(memory, at, &stack[got], part);

        if (result == MEMORY_OK)
            continue;
        stack.resize(got);
        if (got == 0 || result != MEMORY_UNMAPPED)
            dump->gaps.push_back("the stack from " + kernel_dump_hex(dump->rsp) +
                                 " is incomplete, " + std::to_string(got) +
                                 " bytes are read: " + memory_result_text(result));
        return;
    }
}

void kernel_dump_read_memory(const file_span &file, kernel_dump *dump)
{
    kernel_dump_read_context(file, DUMP_CONTEXT, dump);
    const memory_dump memory = memory_dump_open(file, *dump);
    const uint64_t whole = memory_dump_whole_bytes(memory);

    if (file.size < whole)
        dump->gaps.push_back("the file is truncated, " + std::to_string(file.size) + " of " +
                             std::to_string(whole) + " bytes");
    try {
        read_modules(memory, dump);
    } catch (const kernel_dump_refusal &refusal) {
        if (dump->gaps.empty())
            throw;
        kernel_dump_refuse(KERNEL_DUMP_CUT_OFF, dump->gaps[0] + ": " + refusal.reason);
    }
    read_stack(memory, dump);
}
