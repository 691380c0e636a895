/* Shared by the readers of all kinds of dumps. Thread: any; there is no state. */
#ifndef DEVHOST_KERNEL_DUMP_INTERNAL_H
#define DEVHOST_KERNEL_DUMP_INTERNAL_H

#include "../unwind/file_span.h"
#include "dump_layout.h"
#include "kernel_dump.h"

/* The longest file name of a file system. It also bounds the work: thousands of modules may share one
 * text as long as the file. */
static constexpr uint32_t KERNEL_DUMP_FILE_NAME_CHARS = 255u;
/* The end of a path that contains the file name: the name and the backslash before it. */
static constexpr uint32_t KERNEL_DUMP_PATH_END_CHARS = KERNEL_DUMP_FILE_NAME_CHARS + 1u;

std::string kernel_dump_hex(uint64_t value);

/* Thrown by the functions below; kernel_dump_read returns it as error and reason. */
struct kernel_dump_refusal {
    enum kernel_dump_error error;
    std::string reason;
};
[[noreturn]] void kernel_dump_refuse(enum kernel_dump_error error, const std::string &reason);
[[noreturn]] void kernel_dump_damaged(const std::string &reason);
/* where: after which part the file ends. */
[[noreturn]] void kernel_dump_truncated(const file_span &file, const std::string &where);

/* Throws KERNEL_DUMP_DAMAGED unless the file contains what is at offset. */
void kernel_dump_check(const file_span &file, const std::string &what, uint64_t offset,
                       uint64_t length);

/* Rip, Rsp and the other general registers from the context at offset of the file. */
void kernel_dump_read_context(const file_span &file, uint64_t offset, kernel_dump *dump);

/*
 * The name of a module from its file's path: without folders and extension, in UTF-8.
 *
 * path_end   The last KERNEL_DUMP_PATH_END_CHARS characters of the path, or all when it is shorter.
 * whole      The name with its extension.
 *
 * Result     false: the file name is too long; the names are unchanged.
 */
bool kernel_dump_file_name(const std::u16string &path_end, std::string *name, std::string *whole);

/* Adds the module at the end of the list. module.name is the file name; empty when it is unknown.
 * Result: false, and nothing added, when the image does not fit into the address space. */
bool kernel_dump_add_module(kernel_dump *dump, const kernel_dump_module &module);

/* Read the part after the header: Rip, Rsp, stack and modules in any order, for a memory dump also
 * gaps. dump contains the header already. */
void kernel_dump_read_triage(const file_span &file, kernel_dump *dump);
void kernel_dump_read_memory(const file_span &file, kernel_dump *dump);

#endif
