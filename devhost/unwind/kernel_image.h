/*
 * Reader of the image of a driver or of the kernel: the x64 file that a module of a dump was loaded
 * from. Calls nothing of Windows. Nothing in an image is trusted: every offset and count is checked.
 *
 * Thread: any; there is no state.
 */
#ifndef DEVHOST_KERNEL_IMAGE_H
#define DEVHOST_KERNEL_IMAGE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/* Bytes of the file that are loaded together. */
struct kernel_image_section {
    uint32_t rva;    /* offset in the loaded image */
    uint32_t offset; /* in the file */
    uint32_t bytes;
};

struct kernel_image {
    std::string file;               /* UTF-8, without its folder */
    const uint8_t *bytes = nullptr; /* of the file, borrowed */
    uint64_t size = 0;
    uint32_t time_stamp = 0;
    uint32_t image_bytes = 0; /* when it is loaded */
    std::vector<kernel_image_section> sections;
    const uint8_t *functions = nullptr; /* the function table, 12 bytes an entry; NULL: none */
    uint32_t function_count = 0;
};

/* An entry of the function table. All are offsets in the loaded image. */
struct kernel_image_function {
    uint32_t begin, end; /* of the code */
    uint32_t unwind;     /* its unwind information; bit 0: that of another entry is meant */
};

/*
 * Reads headers, sections and the place of the function table.
 *
 * bytes    size bytes, the whole file. Borrowed as long as image is used; NULL when size is 0.
 * image    Filled; undefined on failure.
 *
 * Result   NULL, or why the file is not a readable x64 image: half a sentence. Throws std::bad_alloc.
 */
[[nodiscard]] const char *kernel_image_open(const std::string &file, const uint8_t *bytes,
                                            uint64_t size, kernel_image *image);

/* The bytes at an offset of the loaded image. NULL: the file does not contain all of them. */
const uint8_t *kernel_image_at(const kernel_image &image, uint32_t rva, uint32_t bytes);

/* The entry of the function that contains the offset. Result: false: there is none. */
bool kernel_image_function_at(const kernel_image &image, uint32_t rva,
                              kernel_image_function *function);
/* Reads an entry at 12 bytes. */
kernel_image_function kernel_image_entry(const uint8_t *entry);

#endif
