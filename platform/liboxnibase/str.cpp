/* Strings, and the library's internal conversions. Stateless. */
#include "base.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <emmintrin.h>

#include <oxni/base/str.h>

static constexpr size_t PAGE_BYTES = 4096, LAST_16_OF_PAGE = PAGE_BYTES - 16;

bool str_to_wide(const char *text, std::wstring *wide)
{
    const size_t bytes = text == nullptr ? 0 : strlen(text);
    int units = 0;

    /* A UTF-8 byte yields at most one UTF-16 unit, so one Windows call suffices. */
    wide->resize(bytes);
    if (bytes != 0)
        units = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, static_cast<int>(bytes),
                                    wide->data(), static_cast<int>(bytes));
    wide->resize(static_cast<size_t>(units));
    return text != nullptr && (units != 0 || bytes == 0);
}

std::string str_to_utf8(const wchar_t *text)
{
    const size_t units = wcslen(text);
    std::string narrow(3 * units, '\0'); /* a unit yields at most 3 bytes */
    int bytes = 0;

    if (units != 0)
        bytes = WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(units), narrow.data(),
                                    static_cast<int>(narrow.size()), nullptr, nullptr);
    narrow.resize(static_cast<size_t>(bytes));
    return narrow;
}

bool str_fit(const std::string &text, char *buffer, size_t size)
{
    if (buffer == nullptr || size == 0)
        return false;
    buffer[0] = '\0';
    if (text.size() >= size)
        return false;
    memcpy(buffer, text.c_str(), text.size() + 1);
    return true;
}

size_t oxni_strlcpy(char *target, const char *source, size_t size)
{
    size_t length = source == nullptr ? 0 : strlen(source);

    if (target == nullptr || size == 0)
        return length;
    if (source != nullptr)
        memcpy(target, source, std::min(length, size - 1));
    target[std::min(length, size - 1)] = '\0';
    return length;
}

int oxni_strcmp(const char *a, const char *b)
{
    if (a == nullptr || b == nullptr)
        return (a != nullptr) - (b != nullptr);
    return strcmp(a, b);
}

int oxni_str_snprintf(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    int written;

    if (buffer == nullptr || size == 0)
        return -1;
    va_start(arguments, format);
    written = _vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    /* When the text fills the buffer exactly, the C runtime does not terminate it and does not
     * fail. */
    buffer[size - 1] = '\0';
    return written >= 0 && static_cast<size_t>(written) < size ? written : -1;
}

/* Returns how many of the eight units at an address come before a zero. Need not be aligned. */
static size_t units_before_zero(const char *bytes)
{
    const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes));
    const int zeros = _mm_movemask_epi8(_mm_cmpeq_epi16(units, _mm_setzero_si128()));

    return zeros == 0 ? 8 : static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(zeros))) / 2;
}

size_t oxni_wcsnlen(const wchar_t *text, size_t limit)
{
    /* Text inside a record of bytes may start at an odd address. */
    const char *bytes = reinterpret_cast<const char *>(text);
    size_t length = 0, found;
    wchar_t unit;

    if (text == nullptr)
        return 0;
    while (length < limit) {
        const char *at = bytes + length * sizeof(unit);
        /* Eight units at a time, but never across a page boundary: the text may end before it. */
        if (limit - length >= 8 &&
            reinterpret_cast<uintptr_t>(at) % PAGE_BYTES <= LAST_16_OF_PAGE) {
            found = units_before_zero(at);
            length += found;
            if (found < 8)
                return length;
            continue;
        }
        memcpy(&unit, at, sizeof(unit));
        if (unit == L'\0')
            return length;
        length++;
    }
    return length;
}

int oxni_wcscmp(const wchar_t *a, const wchar_t *b)
{
    if (a == nullptr || b == nullptr)
        return (a != nullptr) - (b != nullptr);
    return wcscmp(a, b);
}

wchar_t *oxni_str_utf8_to_unicode(const char *text)
{
    std::wstring wide;
    size_t bytes;
    void *copy;

    if (!str_to_wide(text, &wide))
        return nullptr;
    bytes = (wide.size() + 1) * sizeof(wchar_t);
    copy = memory_allocate(bytes, BASE_CALLER());
    if (copy != nullptr)
        memcpy(copy, wide.c_str(), bytes);
    return static_cast<wchar_t *>(copy);
}

void oxni_str_free(void *text)
{
    memory_free(text, BASE_CALLER());
}
