// Times in requests and play files: a number with a unit, as 20ms or 1.5s.
#pragma once

#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace kivboard
{

using duration = std::chrono::nanoseconds;

inline constexpr duration longest_duration = std::chrono::hours(24);
inline constexpr char duration_range[] = "0s to 24h, with the unit us, ms, s, min or h";

/// @return Nothing unless the whole text is one time of the accepted range.
inline std::optional<duration> parse_duration(std::string_view text)
{
    constexpr struct {
        std::string_view name;
        double in_ns;
    } units[] = {{"us", 1e3}, {"ms", 1e6}, {"s", 1e9}, {"min", 60e9}, {"h", 3600e9}};
    double value = -1;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    for (const auto &[name, in_ns] : units) {
        const double ns = value * in_ns;
        if (error == std::errc() && text == name && ns >= 0 && ns <= double(longest_duration.count())) {
            return duration(std::llround(ns));
        }
    }
    return std::nullopt;
}

/// "1.5s"
inline std::string describe(duration time)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.10gs", static_cast<double>(time.count()) / 1e9);
    return text;
}

} // namespace kivboard
