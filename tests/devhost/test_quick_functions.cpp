/* The functions of the C runtime that runs of many boots replace, against plain loops. */
#include "calls/quick_functions.h"

#include <cstring>
#include <windows.h>

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

template <typename Function> static Function quick(const char *name)
{
    return reinterpret_cast<Function>(quick_function(name));
}

static constexpr size_t LONGEST = 100;

TEST(quick_functions, move_blocks_that_overlap)
{
    const auto move = quick<void *(*)(void *, const void *, size_t)>("memmove");

    for (size_t bytes = 0; bytes <= LONGEST; bytes++)
        for (size_t from = 0; from <= 40; from++)
            for (size_t to = 0; to <= 40; to++) {
                std::string moved(LONGEST + 50, '.'), expected;

                for (size_t i = 0; i < moved.size(); i++)
                    moved[i] = static_cast<char>(i);
                expected = moved;
                expected.replace(to, bytes, moved.substr(from, bytes));
                ASSERT_EQ(move(&moved[to], &moved[from], bytes), &moved[to]);
                ASSERT_EQ(moved, expected) << bytes << " bytes from " << from << " to " << to;
            }
}

TEST(quick_functions, compare_as_unsigned_bytes)
{
    const auto compare = quick<int (*)(const void *, const void *, size_t)>("memcmp");

    for (size_t bytes = 0; bytes <= LONGEST; bytes++)
        for (size_t at = 0; at <= bytes; at++) {
            std::string low(LONGEST + 1, 'x'), high = low;

            high[at] = '\xff';
            ASSERT_EQ(compare(low.data(), high.data(), bytes), at < bytes ? -1 : 0) << bytes;
            ASSERT_EQ(compare(high.data(), low.data(), bytes), at < bytes ? 1 : 0) << bytes;
        }
}

/* As the C runtime formats, byte for byte, into buffers of all sizes. */
TEST(quick_functions, format_as_the_runtime)
{
    typedef int (*format_fn)(char *buffer, size_t size, const char *format, ...);
    static const char *const formats[] = {
        "",      "plain",  "%d",    "%u",   "%x",       "%02d",    "%4d",   "%04d", "%I64d",
        "%lld",  "%llu",   "%I64u", "%llx", "%p",       "%ld",     "%lu",   "%i",   "%X",
        "%-5d|", "%+d",    "%.3d",  "%#x",  "%08x",     "%020d",   "%25d",  "%hd",  "%5u",
        "%%",    "a%d%%b", "%d %d", "%c",   "%s is %d", "%5s|",    "%.2s|", "%",    "%lls",
        "%zd",   "%1d",    "%00d",  "%0d",  "%5%",      "%02I64d", "%021d", "%5p",  "%ls",
    };
    static const int64_t values[] = {0,  1,         9,         10,        -1,       -10,
                                     65, INT32_MAX, INT32_MIN, INT64_MAX, INT64_MIN};
    const auto format = quick<format_fn>("_snprintf");
    const auto real = reinterpret_cast<format_fn>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"msvcrt.dll"), "_snprintf")));

    for (const char *each : formats)
        for (const int64_t value : values)
            for (size_t size = 0; size < 40; size++) {
                const bool texts = strchr(each, 's') != nullptr;
                const char *text = value == 0 ? nullptr : "text\0"; /* also as a wide text */
                const int64_t first = texts ? reinterpret_cast<int64_t>(text) : value;
                std::string made(50, '.'), expected = made;

                ASSERT_EQ(format(&made[0], size, each, first, value),
                          real(&expected[0], size, each, first, value))
                    << each << " " << value << " " << size;
                ASSERT_EQ(made, expected) << each << " " << value << " " << size;
            }
}

/* A page that an inaccessible one follows: a text at its end, with and without a text before it. */
TEST(quick_functions, measure_up_to_the_end_of_a_page)
{
    static constexpr size_t PAGE = 4096;
    const auto length = quick<size_t (*)(const char *)>("strlen");
    const auto wide_length = quick<size_t (*)(const wchar_t *)>("wcslen");
    char *page = static_cast<char *>(VirtualAlloc(nullptr, 2 * PAGE, MEM_RESERVE, PAGE_NOACCESS));

    ASSERT_NE(VirtualAlloc(page, PAGE, MEM_COMMIT, PAGE_READWRITE), nullptr);
    for (const char before : {'\0', 'x'})
        for (size_t chars = 0; chars <= LONGEST; chars++) {
            char *text = page + PAGE - 1 - chars;
            /* At odd addresses, too. */
            char *wide = page + PAGE - 2 * (chars + 1) - chars % 2;

            memset(page, before, PAGE);
            memset(text, 'x', chars);
            page[PAGE - 1] = '\0';
            ASSERT_EQ(length(text), chars);
            memset(wide, 'x', 2 * chars);
            memset(wide + 2 * chars, 0, 2);
            ASSERT_EQ(wide_length(reinterpret_cast<wchar_t *>(wide)), chars);
        }
    VirtualFree(page, 0, MEM_RELEASE);
}
