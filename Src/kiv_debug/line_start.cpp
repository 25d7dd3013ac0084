#include "line_start.h"

#include <algorithm>
#include <cstring>

#include "common/decimal.h"
#include "log_as.h"

namespace kiv
{
namespace
{

// A level's prefix is its beginning, the name in 35 columns, a blank, the line in 4, and its end.
constexpr std::string_view prefix_end = " : \033[0m";
constexpr std::string_view conversions = "%35s %4d";
constexpr std::size_t name_width = 35;
constexpr std::size_t line_width = 4;
constexpr std::size_t longest_name = 160;

constexpr std::string_view prefixes[] = {KIV_LOG_PREFIX_ERRR, KIV_LOG_PREFIX_PRNT, KIV_LOG_PREFIX_INF1,
                                         KIV_LOG_PREFIX_INF2};
constexpr std::size_t prefix_size = prefixes[0].size();
constexpr std::size_t beginning_size = prefix_size - prefix_end.size() - conversions.size();

// The prefix of a level that has none is the one of the finest.
const char *prefix_of(std::uint32_t level) noexcept
{
    return prefixes[std::clamp(level, level::ERRR, level::INF2) - level::ERRR].data();
}

constexpr char none = '\0';
constexpr std::size_t widest = 99; // and wider than any number

using field = line_start::field;

constexpr field right_aligned(std::size_t width) noexcept
{
    return {none, width};
}

char *put(char *at, std::string_view text) noexcept
{
    return static_cast<char *>(mempcpy(at, text.data(), text.size()));
}

char *put_blanks(char *at, std::size_t count) noexcept
{
    std::memset(at, ' ', count);
    return at + count;
}

char *put_string(char *at, field as, std::string_view text) noexcept
{
    const std::size_t padding = std::max(as.width, text.size()) - text.size();
    return as.flag == '-' ? put_blanks(put(at, text), padding) : put(put_blanks(at, padding), text);
}

char *write_hexadecimal(char *end, unsigned value) noexcept
{
    do {
        *--end = "0123456789abcdef"[value % 16];
        value /= 16;
    } while (value != 0);
    return end;
}

// Leading zeros belong to the number, behind its sign.
char *put_digits(char *at, field as, std::string_view digits, bool is_negative) noexcept
{
    const std::size_t size = digits.size() + (is_negative ? 1 : 0);
    const std::size_t padding = std::max(as.width, size) - size;
    if (as.flag == none) {
        at = put_blanks(at, padding);
    }
    if (is_negative) {
        *at++ = '-';
    }
    if (as.flag == '0') {
        at = std::fill_n(at, padding, '0');
    }
    for (const char digit : digits) {
        *at++ = digit;
    }
    return as.flag == '-' ? put_blanks(at, padding) : at;
}

char *put_number(char *at, field as, unsigned magnitude, bool is_negative, char kind) noexcept
{
    char digits[10];
    char *const end = digits + sizeof digits;
    const char *const begin = kind == 'x' ? write_hexadecimal(end, magnitude) : write_decimal(end, magnitude);
    return put_digits(at, as, {begin, static_cast<std::size_t>(end - begin)}, is_negative);
}

char *put_decimal(char *at, field as, int value) noexcept
{
    const auto bits = static_cast<unsigned>(value);
    return put_number(at, as, value < 0 ? 0 - bits : bits, value < 0, 'd');
}

const char *next_string(va_list &arguments) noexcept
{
    va_list ahead;
    va_copy(ahead, arguments);
    const char *const text = va_arg(ahead, const char *);
    va_end(ahead);
    return text;
}

} // namespace

line_start::line_start(int seconds, int milliseconds) noexcept
{
    end_ = put_decimal(put(end_, "T "), right_aligned(3), seconds);
    end_ = put_decimal(put(end_, "."), {'-', 3}, milliseconds);
    *end_++ = ' ';
}

bool line_start::add_prefix(std::uint32_t level, const char *function, int line) noexcept
{
    const std::size_t size = function != nullptr ? strnlen(function, longest_name) : longest_name;
    if (size == longest_name) {
        return false;
    }
    char *at = put(end_, {prefix_of(level), beginning_size});
    at = put_string(at, right_aligned(name_width), {function, size});
    *at++ = ' ';
    at = put_decimal(at, right_aligned(line_width), line);
    end_ = put(at, prefix_end);
    return true;
}

const char *line_start::take_prefix(std::uint32_t level, const char *format, va_list &arguments) noexcept
{
    if (strnlen(format, prefix_size) != prefix_size ||
        std::memcmp(format, prefix_of(level), prefix_size) != 0) {
        return format;
    }
    va_list taken;
    va_copy(taken, arguments);
    const char *const function = va_arg(taken, const char *);
    const int line = va_arg(taken, int);
    const bool is_added = add_prefix(level, function, line);
    if (is_added) {
        va_end(arguments);
        va_copy(arguments, taken);
    }
    va_end(taken);
    return is_added ? format + prefix_size : format;
}

// @return The next conversion, or what does not fit.
const char *line_start::add_plain(const char *format) noexcept
{
    char *at = end_;
    for (; *format != '%' && *format != '\0' && at != text_ + sizeof text_; ++format) {
        *at++ = *format;
    }
    end_ = at;
    return format;
}

// @return False: a null pointer or too long a string is the C library's, and so is the argument.
bool line_start::add_string(field as, va_list &arguments) noexcept
{
    const char *const text = next_string(arguments);
    const std::size_t size = text != nullptr ? strnlen(text, room()) : room();
    if (size == room() || as.flag == '0') {
        return false;
    }
    end_ = put_string(end_, as, {va_arg(arguments, const char *), size});
    return true;
}

// @return False: the conversion is the C library's.
bool line_start::add_argument(char kind, field as, va_list &arguments) noexcept
{
    switch (kind) {
    case 'd':
    case 'i':
        end_ = put_decimal(end_, as, va_arg(arguments, int));
        return true;
    case 'u':
    case 'x':
        end_ = put_number(end_, as, va_arg(arguments, unsigned), false, kind);
        return true;
    case 's':
        return add_string(as, arguments);
    default:
        return false;
    }
}

// @param format  Behind the "%". @return Behind the conversion, or null: it is the C library's.
const char *line_start::add_conversion(const char *format, va_list &arguments) noexcept
{
    field as = {none, 0};
    if (*format == '0' || *format == '-') {
        as.flag = *format++;
    }
    for (int digits = 0; digits < 2 && *format >= '0' && *format <= '9'; ++digits) {
        as.width = 10 * as.width + static_cast<std::size_t>(*format++ - '0');
    }
    return room() > widest && add_argument(*format, as, arguments) ? format + 1 : nullptr;
}

const char *line_start::add(const char *format, va_list &arguments) noexcept
{
    const char *next = format;
    while (next != nullptr) {
        format = add_plain(next);
        next = *format == '%' ? add_conversion(format + 1, arguments) : nullptr;
    }
    return format;
}

} // namespace kiv
