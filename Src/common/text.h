// Small rules for text that several modules share.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kiv
{

/// How a name shows in the log: a null one as "?!?".
inline const char *shown(const char *name) noexcept
{
    return name != nullptr ? name : "?!?";
}

/// How an address shows in the log: as the number that it is.
inline std::uintptr_t number_of(const void *address) noexcept
{
    return reinterpret_cast<std::uintptr_t>(address);
}

/// A null text where an empty one serves.
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
