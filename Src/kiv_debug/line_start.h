// The beginning of a log line, formatted by hand: the time, the prefix of a level, and as much of the message as consists
// of the few simple conversions that nearly all messages have. For these the general formatter takes several times longer.
//
// It is put together before the log's lock is taken. The C library formats the rest of a line, if there is one.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kiv
{

class line_start
{
public:
    /// "T %3d.%-3d "
    line_start(int seconds, int milliseconds) noexcept;
    line_start(const line_start &) = delete;
    line_start &operator=(const line_start &) = delete;

    /// @return False when there is no name, or a very long one: nothing is added.
    bool add_prefix(std::uint32_t level, const char *function, int line) noexcept;

    /// If a format begins with the prefix of its level, adds the prefix.
    /// @param arguments  The two of the prefix are taken with it.
    /// @return The rest of the format.
    [[gnu::format_arg(3)]] const char *take_prefix(std::uint32_t level, const char *format,
                                                   va_list &arguments) noexcept;

    /// Adds as much of a message as it can, exactly as printf() formats it: plain characters, and %s %d %i %u %x with a
    /// width of up to two digits, a "0" or a "-". It stops at anything else, and at what does not fit.
    /// @param arguments  Those of the formatted conversions are taken.
    /// @return The rest of the format.
    [[gnu::format_arg(2)]] const char *add(const char *format, va_list &arguments) noexcept;

    [[nodiscard]] std::string_view text() const noexcept
    {
        return {text_, static_cast<std::size_t>(end_ - text_)};
    }

    /// The form of a conversion.
    struct field {
        char flag; // '0', '-' or none
        std::size_t width;
    };

private:
    [[nodiscard]] std::size_t room() const noexcept
    {
        return static_cast<std::size_t>(text_ + sizeof text_ - end_);
    }

    const char *add_plain(const char *format) noexcept;
    bool add_string(field as, va_list &arguments) noexcept;
    bool add_argument(char kind, field as, va_list &arguments) noexcept;
    const char *add_conversion(const char *format, va_list &arguments) noexcept;

    char *end_ = text_;
    char text_[512];
};

} // namespace kiv
