/* Formatting of texts and integers, which is nearly all that log lines, paths and JSON need. The C
 * runtime, which looks at its locale for each character, does the rest. Stateless. */
#include "quick_format.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <windows.h>

static constexpr size_t MOST_DIGITS = 20; /* of 64 bits */

typedef int (*vsnprintf_fn)(char *buffer, size_t size, const char *format, va_list arguments);

/* The unused rest of a buffer; full once something did not fit. */
struct rest {
    char *at;
    size_t bytes;
    bool full;

    void add(const char *text, size_t length)
    {
        full = full || length >= bytes; /* a zero follows */
        if (full)
            return;
        memcpy(at, text, length);
        at += length;
        bytes -= length;
    }
};

struct simple_conversion {
    char pad; /* before the digits, up to the width */
    size_t width;
    bool is_64_bits;
    char type;
};

/* Reads what follows a "%". Result: the end of it; NULL when it is not simple. */
static const char *read_simple(const char *begin, simple_conversion *found)
{
    const char *at = begin;

    *found = {*at == '0' ? '0' : ' ', 0, false, '\0'};
    for (; *at >= '0' && *at <= '9'; at++)
        found->width = found->width * 10 + static_cast<size_t>(*at - '0');
    if (at[0] == 'I' && at[1] == '6' && at[2] == '4') {
        found->is_64_bits = true;
        at += 3;
    }
    found->type = *at;
    switch (*at) {
    case 'd':
    case 'u':
    case 'x': return found->width <= MOST_DIGITS ? at + 1 : nullptr;
    case 's':
    case 'p':
    case '%': return at == begin ? at + 1 : nullptr;
    default: return nullptr;
    }
}

static void add_number(rest &out, const simple_conversion &conversion, uint64_t value)
{
    const bool is_pointer = conversion.type == 'p';
    const bool is_negative = conversion.type == 'd' && static_cast<int64_t>(value) < 0;
    const unsigned base = conversion.type == 'x' || is_pointer ? 16 : 10;
    const char *digits = is_pointer ? "0123456789ABCDEF" : "0123456789abcdef";
    const size_t width = is_pointer ? 2 * sizeof(void *) : conversion.width;
    const char pad = is_pointer ? '0' : conversion.pad;
    char text[MOST_DIGITS + 1];
    char *begin = text + sizeof(text);

    const auto length = [&] { return static_cast<size_t>(text + sizeof(text) - begin); };
    value = is_negative ? 0 - value : value;
    do
        *--begin = digits[value % base];
    while ((value /= base) != 0);
    if (is_negative && pad == ' ')
        *--begin = '-';
    while (length() + (is_negative && pad == '0') < width)
        *--begin = pad;
    if (is_negative && pad == '0')
        *--begin = '-';
    out.add(begin, length());
}

static uint64_t number_of(const simple_conversion &conversion, uint64_t slot)
{
    if (conversion.is_64_bits || conversion.type == 'p')
        return slot;
    return conversion.type == 'd' ? static_cast<uint64_t>(static_cast<int32_t>(slot))
                                  : static_cast<uint32_t>(slot);
}

/* Result: the length; -1 when something is not simple or does not fit with its zero. */
static int format_simple(char *buffer, size_t size, const char *format, va_list arguments)
{
    rest out = {buffer, size, size == 0};
    simple_conversion conversion;

    while (*format != '\0') {
        const char *plain = format;

        while (*format != '\0' && *format != '%')
            format++;
        out.add(plain, static_cast<size_t>(format - plain));
        if (*format == '\0')
            break;
        format = read_simple(format + 1, &conversion);
        if (format == nullptr || out.full)
            return -1;
        if (conversion.type == '%') {
            out.add("%", 1);
        } else if (conversion.type == 's') {
            const char *text = va_arg(arguments, const char *);
            text = text != nullptr ? text : "(null)";
            out.add(text, strlen(text));
        } else {
            add_number(out, conversion, number_of(conversion, va_arg(arguments, uint64_t)));
        }
    }
    if (out.full)
        return -1;
    *out.at = '\0';
    return static_cast<int>(out.at - buffer);
}

int quick_vsnprintf(char *buffer, size_t size, const char *format, va_list arguments)
{
    static const auto real = reinterpret_cast<vsnprintf_fn>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"msvcrt.dll"), "_vsnprintf")));
    const int length = format_simple(buffer, size, format, arguments);

    return length >= 0 ? length : real(buffer, size, format, arguments);
}

int quick_snprintf(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;

    va_start(arguments, format);
    const int length = quick_vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}
