/* Reading of images: headers, sections, function table. */
#include "kernel_image.h"
#include "file_span.h"

static constexpr uint32_t SECTION_BYTES = 40u;
static constexpr uint32_t FUNCTION_BYTES = 12u;
/* As many as Windows loads; it bounds each look-up. */
static constexpr uint32_t SECTIONS_MAX = 96u;

/* Places in the headers. */
enum image_field : uint64_t {
    DOS_PE_OFFSET = 0x3C,
    /* From the mark "PE" on. */
    PE_MACHINE = 0x04,
    PE_SECTION_COUNT = 0x06,
    PE_TIME_STAMP = 0x08,
    PE_OPTIONAL_BYTES = 0x14,
    PE_OPTIONAL = 0x18,
    PE_MAGIC = 0x18,
    PE_IMAGE_BYTES = 0x50,
    PE_DIRECTORY_COUNT = 0x84,
    PE_FUNCTIONS_RVA = 0xA0,
    PE_FUNCTIONS_BYTES = 0xA4,
    PE_FIXED_BYTES = 0xA8,
    /* From a section's header on. */
    SECTION_RVA = 0x0C,
    SECTION_FILE_BYTES = 0x10,
    SECTION_FILE_OFFSET = 0x14,
};

static constexpr uint16_t MACHINE_X64 = 0x8664u;
static constexpr uint16_t MAGIC_64_BIT = 0x20Bu;
static constexpr uint32_t FUNCTIONS_DIRECTORY = 3u;

static const char *read_sections(const file_span &file, uint64_t table, uint32_t count,
                                 kernel_image *image)
{
    if (count > SECTIONS_MAX || !file.holds(table, static_cast<uint64_t>(count) * SECTION_BYTES))
        return "the list of sections is invalid";
    for (uint64_t at = table; count > 0; count--, at += SECTION_BYTES) {
        const kernel_image_section section = {file.at<uint32_t>(at + SECTION_RVA),
                                              file.at<uint32_t>(at + SECTION_FILE_OFFSET),
                                              file.at<uint32_t>(at + SECTION_FILE_BYTES)};

        if (!file.holds(section.offset, section.bytes))
            return "the file is truncated";
        image->sections.push_back(section);
    }
    return nullptr;
}

static const char *read_functions(uint32_t rva, uint32_t bytes, kernel_image *image)
{
    if (bytes < FUNCTION_BYTES)
        return nullptr;
    image->functions = kernel_image_at(*image, rva, bytes);
    image->function_count = bytes / FUNCTION_BYTES;
    return image->functions != nullptr ? nullptr : "the function table lies outside the file";
}

const char *kernel_image_open(const std::string &file, const uint8_t *bytes, uint64_t size,
                              kernel_image *image)
{
    const file_span span = {bytes, size};

    *image = kernel_image();
    image->file = file;
    image->bytes = bytes;
    image->size = size;
    if (!span.holds(0, DOS_PE_OFFSET + 4) || memcmp(bytes, "MZ", 2) != 0)
        return "not an image";
    const uint64_t pe = span.at<uint32_t>(DOS_PE_OFFSET);

    if (!span.holds(pe, PE_FIXED_BYTES) || memcmp(bytes + pe, "PE\0\0", 4) != 0)
        return "not an image";
    if (span.at<uint16_t>(pe + PE_MACHINE) != MACHINE_X64 ||
        span.at<uint16_t>(pe + PE_MAGIC) != MAGIC_64_BIT)
        return "not an image of x64";
    image->time_stamp = span.at<uint32_t>(pe + PE_TIME_STAMP);
    image->image_bytes = span.at<uint32_t>(pe + PE_IMAGE_BYTES);
    const char *fault =
        read_sections(span, pe + PE_OPTIONAL + span.at<uint16_t>(pe + PE_OPTIONAL_BYTES),
                      span.at<uint16_t>(pe + PE_SECTION_COUNT), image);

    if (fault != nullptr || span.at<uint32_t>(pe + PE_DIRECTORY_COUNT) <= FUNCTIONS_DIRECTORY)
        return fault;
    return read_functions(span.at<uint32_t>(pe + PE_FUNCTIONS_RVA),
                          span.at<uint32_t>(pe + PE_FUNCTIONS_BYTES), image);
}

const uint8_t *kernel_image_at(const kernel_image &image, uint32_t rva, uint32_t bytes)
{
    for (const kernel_image_section &section : image.sections) {
        const uint32_t inside = rva - section.rva; /* wraps for an offset before the section */

        if (rva >= section.rva && inside < section.bytes)
            return bytes <= section.bytes - inside ? image.bytes + section.offset + inside
                                                   : nullptr;
    }
    return nullptr;
}

kernel_image_function kernel_image_entry(const uint8_t *entry)
{
    kernel_image_function function;

    static_assert(sizeof(function) == FUNCTION_BYTES, "as in the file");
    memcpy(&function, entry, sizeof(function));
    return function;
}

bool kernel_image_function_at(const kernel_image &image, uint32_t rva,
                              kernel_image_function *function)
{
    uint32_t first = 0, last = image.function_count;

    while (first < last) {
        const uint32_t middle = first + (last - first) / 2;

        *function =
            kernel_image_entry(image.functions + static_cast<size_t>(middle) * FUNCTION_BYTES);
        if (rva < function->begin)
            last = middle;
        else if (rva >= function->end)
            first = middle + 1;
        else
            return true;
    }
    return false;
}
