// Small rules for text that several modules share.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kiv
{

/// A name for the log: a null one shows as "?!?".
inline const char *shown(const char *name) noexcept
{
    return name != nullptr ? name : "?!?";
}

/// An address for the log, which shows it as a number.
inline std::uintptr_t number_of(const void *address) noexcept
{
    return reinterpret_cast<std::uintptr_t>(address);
}

/// Replaces a null text by an empty one.
inline const char *or_empty(const char *text) noexcept
{
    return text != nullptr ? text : "";
}

/// Copies at most size - 1 characters, zeroes the rest and so always terminates. A size of 0 stores nothing.
inline void copy_bounded(char *dst, std::size_t size, const char *src) noexcept
{
    if (size == 0) {
        return;
    }
    const std::size_t length = std::min(std::strlen(src), size - 1);
    std::fill_n(std::copy_n(src, length, dst), size - length, '\0');
}

} // namespace kiv
