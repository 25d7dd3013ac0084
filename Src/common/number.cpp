#include "common/number.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace kiv
{
namespace
{

// scanf() tells the end of the text from a text that does not match; a number that is too wide is neither.
enum class scan { number, no_number, too_wide, text_end };

scan scan_number(const char *text, int base, std::int32_t &value) noexcept
{
    text += std::strspn(text, " \t\n\v\f\r");
    if (*text == '\0') {
        return scan::text_end;
    }
    char *end = nullptr;
    errno = 0;
    const long long wide = std::strtoll(text, &end, base);
    const long long highest =
        base == 16 ? std::numeric_limits<std::uint32_t>::max() : std::numeric_limits<std::int32_t>::max();
    if (end == text) {
        return scan::no_number;
    }
    if (errno == ERANGE || wide < std::numeric_limits<std::int32_t>::min() || wide > highest) {
        return scan::too_wide;
    }
    value = static_cast<std::int32_t>(static_cast<std::uint32_t>(wide));
    return scan::number;
}

scan scan_prefixed(const char *text, std::int32_t &value) noexcept
{
    constexpr const char *prefix = "0x"; // lower case only: "0X1F" reads as the decimal 0 before a letter
    for (const char *expected = prefix; *expected != '\0'; ++expected, ++text) {
        if (*text != *expected) {
            return *text == '\0' ? scan::text_end : scan::no_number;
        }
    }
    return scan_number(text, 16, value);
}

// A number that is too wide in one reading is not read in another: "0x100000000" is not the 0 before the x.
scan scan_unprefixed(const char *text, std::int32_t &value) noexcept
{
    const scan decimal = scan_number(text, 10, value);
    return decimal == scan::no_number ? scan_number(text, 16, value) : decimal;
}

scan scan_any(const char *text, std::int32_t &value) noexcept
{
    const scan prefixed = scan_prefixed(text, value);
    const bool is_settled = prefixed == scan::number || prefixed == scan::too_wide;
    return is_settled ? prefixed : scan_unprefixed(text, value);
}

} // namespace

bool parse_number(const char *text, std::int32_t &value) noexcept
{
    return scan_any(text, value) == scan::number;
}

bool parse_argument_number(const char *text, std::int32_t &value) noexcept
{
    value = 0;
    if (scan_prefixed(text, value) == scan::text_end) {
        return true;
    }
    const scan found = scan_any(text, value);
    return found == scan::number || found == scan::text_end;
}

} // namespace kiv
