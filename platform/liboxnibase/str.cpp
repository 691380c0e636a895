/* Strings, and the two conversions that the library itself needs. Stateless. */
#include "base.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <oxni/base/str.h>

bool str_to_wide(const char *text, std::wstring *wide)
{
    int chars;

    wide->clear();
    if (text == NULL)
        return false;
    chars = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, NULL, 0);
    if (chars <= 0)
        return false;
    wide->resize(static_cast<size_t>(chars));
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, wide->data(), chars);
    wide->pop_back();
    return true;
}

std::string str_to_utf8(const wchar_t *text)
{
    int bytes = WideCharToMultiByte(CP_UTF8, 0, text, -1, NULL, 0, NULL, NULL);
    std::string narrow;

    if (bytes <= 0)
        return narrow;
    narrow.resize(static_cast<size_t>(bytes));
    WideCharToMultiByte(CP_UTF8, 0, text, -1, narrow.data(), bytes, NULL, NULL);
    narrow.pop_back();
    return narrow;
}

bool str_fit(const std::string &text, char *buffer, size_t size)
{
    if (buffer == NULL || size == 0)
        return false;
    buffer[0] = '\0';
    if (text.size() >= size)
        return false;
    memcpy(buffer, text.c_str(), text.size() + 1);
    return true;
}

size_t oxni_strlcpy(char *target, const char *source, size_t size)
{
    size_t length = source == NULL ? 0 : strlen(source);

    if (target == NULL || size == 0)
        return length;
    if (source != NULL)
        memcpy(target, source, std::min(length, size - 1));
    target[std::min(length, size - 1)] = '\0';
    return length;
}

int oxni_strcmp(const char *a, const char *b)
{
    if (a == NULL || b == NULL)
        return (a != NULL) - (b != NULL);
    return strcmp(a, b);
}

int oxni_str_snprintf(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    int written;

    if (buffer == NULL || size == 0)
        return -1;
    va_start(arguments, format);
    written = _vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    /* The C runtime neither terminates nor fails when the text fills the buffer exactly. */
    buffer[size - 1] = '\0';
    return written >= 0 && static_cast<size_t>(written) < size ? written : -1;
}

/* Text inside a record of bytes may begin at an odd address. */
static wchar_t unit_at(const char *bytes, size_t index)
{
    wchar_t unit;

    memcpy(&unit, bytes + index * sizeof(unit), sizeof(unit));
    return unit;
}

/* Whether one of the four units of a word is zero. */
static bool has_zero_unit(uint64_t word)
{
    static constexpr uint64_t lows = 0x0001000100010001ULL, tops = 0x8000800080008000ULL;

    return ((word - lows) & ~word & tops) != 0;
}

size_t oxni_wcsnlen(const wchar_t *text, size_t limit)
{
    const char *bytes = reinterpret_cast<const char *>(text);
    size_t length = 0;
    uint64_t word;

    if (text == NULL)
        return 0;
    while (length < limit) {
        const char *at = bytes + length * sizeof(wchar_t);
        /* Whole words where they are aligned: none reaches into a page that the text does not. */
        if (reinterpret_cast<uintptr_t>(at) % sizeof(word) == 0)
            for (; limit - length >= 4; length += 4, at += sizeof(word)) {
                memcpy(&word, at, sizeof(word));
                if (has_zero_unit(word))
                    break;
            }
        if (length == limit || unit_at(bytes, length) == L'\0')
            break;
        length++;
    }
    return length;
}

int oxni_wcscmp(const wchar_t *a, const wchar_t *b)
{
    if (a == NULL || b == NULL)
        return (a != NULL) - (b != NULL);
    return wcscmp(a, b);
}

wchar_t *oxni_str_utf8_to_unicode(const char *text)
{
    std::wstring wide;
    size_t bytes;
    void *copy;

    if (!str_to_wide(text, &wide))
        return NULL;
    bytes = (wide.size() + 1) * sizeof(wchar_t);
    copy = memory_allocate(bytes, BASE_CALLER());
    if (copy != NULL)
        memcpy(copy, wide.c_str(), bytes);
    return static_cast<wchar_t *>(copy);
}

void oxni_str_free(void *text)
{
    memory_free(text, BASE_CALLER());
}
