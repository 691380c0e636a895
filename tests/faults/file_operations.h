/* The operations of plug-in and platform that change a file: open for writing, write, flush, move,
 * delete, set the time, close a stream. One of them can be a crash point. Host's one thread. */
#ifndef FILE_OPERATIONS_H
#define FILE_OPERATIONS_H

#include <cstdint>

#include <string>

struct file_operations {
    uint64_t count;    /* so far */
    uint64_t at;       /* the crash point: before this operation, from 1; 0: none */
    bool torn;         /* in the middle of it when it writes, with half of the bytes written */
    void (*end)(void); /* called there; does not return */
    void (*before)(bool writes); /* called before each operation; may be NULL */
    std::string deleted;         /* the last document that was deleted */
};

/* Of this process. */
extern struct file_operations file_operations;

/* Redirects the operations of the platform, and of the plug-in at each of its loads. */
void file_operations_open(void);

/* Closes what is open in the present operation, as the end of the process does. */
void file_operations_close_files(void);

/* Whether a name is that of a document, which is always the old or the new one. */
bool file_operations_document(const std::string &name);

#endif
