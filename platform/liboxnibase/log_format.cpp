/* Formatting of log lines. Wide text is converted to UTF-8, because the C runtime converts it to
 * the machine's code page and truncates the line at the first unmappable character. Stateless. */
#include "base.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string_view>
#include <vector>

/* On this target each variadic argument takes a slot of 8 bytes. */
static_assert(sizeof(va_list) == sizeof(char *), "a va_list points to the first slot");

/* One conversion of a format, "%-*.3lls". */
struct conversion {
    std::string_view prefix;    /* "%", flags and width */
    std::string_view precision; /* with its point; may be empty */
    std::string_view modifiers;
    char type;
    size_t length; /* characters in the format */
};

static size_t digits_or_star(const char *text)
{
    return *text == '*' ? 1 : strspn(text, "0123456789");
}

/* format points to "%". */
static conversion read_conversion(const char *format)
{
    const char *at = format + 1;
    conversion found = {};

    if (*at == 's' || *at == 'd') { /* as most are */
        found.prefix = {format, 1};
        found.type = *at;
        found.length = 2;
        return found;
    }
    at += strspn(at, "-+ #0");
    at += digits_or_star(at);
    found.prefix = {format, static_cast<size_t>(at - format)};
    if (*at == '.') {
        size_t length = 1 + digits_or_star(at + 1);
        found.precision = {at, length};
        at += length;
    }
    const size_t length = strspn(at, "hlLqjztwI0123456789");
    found.modifiers = {at, length};
    at += length;
    found.type = *at;
    found.length = static_cast<size_t>(at - format) + (*at != '\0' ? 1 : 0);
    return found;
}

/* Returns whether the argument is wide: %S, %ls, %ws and the same forms of %c. */
static bool is_wide(const conversion &conversion)
{
    const bool narrow = conversion.modifiers.find('h') != std::string::npos;
    const bool wide = conversion.modifiers.find_first_of("lw") != std::string::npos;

    return ((conversion.type == 'S' || conversion.type == 'C') && !narrow) ||
           ((conversion.type == 's' || conversion.type == 'c') && wide);
}

static bool has_wide(const char *format)
{
    while ((format = strchr(format, '%')) != nullptr) {
        const conversion conversion = read_conversion(format);

        if (is_wide(conversion))
            return true;
        format += conversion.length;
    }
    return false;
}

/* A format and its arguments, with each wide argument converted to UTF-8. */
class narrowed_call
{
  public:
    narrowed_call(const char *format, va_list arguments)
    {
        while (*format != '\0') {
            const size_t plain = strcspn(format, "%");

            format_.append(format, plain);
            format += plain;
            if (*format == '%')
                format += add(read_conversion(format), format, &arguments);
        }
    }

    const char *format() const
    {
        return format_.c_str();
    }

    va_list arguments() const
    {
        return reinterpret_cast<va_list>(const_cast<uint64_t *>(slots_.data()));
    }

  private:
    /* Adds one conversion with its arguments. Returns its length in the format. */
    size_t add(const conversion &conversion, const char *format, va_list *arguments)
    {
        if (conversion.prefix.back() == '*')
            slots_.push_back(va_arg(*arguments, uint64_t));
        if (is_wide(conversion)) {
            add_wide(conversion, arguments);
            return conversion.length;
        }
        if (!conversion.precision.empty() && conversion.precision.back() == '*')
            slots_.push_back(va_arg(*arguments, uint64_t));
        if (conversion.type != '%' && conversion.type != '\0')
            slots_.push_back(va_arg(*arguments, uint64_t));
        format_.append(format, conversion.length);
        return conversion.length;
    }

    /* A precision counts wide characters, so it is applied before the conversion. */
    void add_wide(const conversion &conversion, va_list *arguments)
    {
        size_t limit = SIZE_MAX;
        std::wstring text;

        if (!conversion.precision.empty())
            limit = static_cast<size_t>(conversion.precision.back() == '*'
                                            ? va_arg(*arguments, int)
                                            : atoi(conversion.precision.data() + 1));
        if (conversion.type == 'S' || conversion.type == 's') {
            const wchar_t *wide = va_arg(*arguments, const wchar_t *);
            wide = wide != nullptr ? wide : L"(null)";
            text.assign(wide, wcsnlen(wide, limit));
        } else {
            text.assign(1, static_cast<wchar_t>(va_arg(*arguments, int)));
        }
        texts_.push_back(str_to_utf8(text.c_str()));
        slots_.push_back(reinterpret_cast<uint64_t>(texts_.back().c_str()));
        format_.append(conversion.prefix).push_back('s');
    }

    std::string format_;
    std::vector<uint64_t> slots_;
    std::deque<std::string> texts_; /* a deque, since slots_ points into its elements */
};

static std::string format_narrow(const char *format, va_list arguments)
{
    char usual[1024];
    int length = _vsnprintf(usual, sizeof(usual), format, arguments);

    if (length >= 0 && static_cast<size_t>(length) < sizeof(usual))
        return {usual, static_cast<size_t>(length)};
    for (std::string line(2 * sizeof(usual), '\0');; line.resize(line.size() * 2)) {
        length = _vsnprintf(line.data(), line.size(), format, arguments);
        if (length >= 0 && static_cast<size_t>(length) < line.size())
            return line.substr(0, static_cast<size_t>(length));
    }
}

std::string log_format(const char *format, va_list arguments)
{
    if (!has_wide(format))
        return format_narrow(format, arguments);
    const narrowed_call call(format, arguments);
    return format_narrow(call.format(), call.arguments());
}
