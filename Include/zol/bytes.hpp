/**
 * @file bytes.hpp
 * @brief Payloads: the bytes of variables and texts, and the way back.
 */
#ifndef ZOL_BYTES_HPP
#define ZOL_BYTES_HPP

#include <cstddef>
#include <cstring>
#include <optional>
#include <ranges>
#include <span>
#include <string_view>
#include <type_traits>

namespace zol
{

/// A payload.
using bytes = std::span<const std::byte>;

/// A type whose bytes are its whole value. Pointers and views are none: they refer to data elsewhere.
template <typename T>
concept plain = std::is_trivially_copyable_v<T> && !std::is_pointer_v<T> && !std::ranges::view<T>;

/// The bytes of a variable, to be sent or filled. Those of a literal include its end.
template <plain T>
[[nodiscard]] auto bytes_of(T &value) noexcept
{
    if constexpr (std::is_const_v<T>) {
        return bytes(std::as_bytes(std::span(&value, 1)));
    } else {
        return std::span<std::byte>(std::as_writable_bytes(std::span(&value, 1)));
    }
}
/// The bytes of a text, without an end.
[[nodiscard]] inline bytes bytes_of(std::string_view text) noexcept
{
    return std::as_bytes(std::span(text));
}

/// The way back: a copy of the value, if that has as many bytes.
template <plain T>
[[nodiscard]] std::optional<T> from_bytes(bytes from) noexcept
{
    std::optional<T> value;
    if (from.size() == sizeof(T)) {
        std::memcpy(&value.emplace(), from.data(), sizeof(T));
    }
    return value;
}

} // namespace zol

#endif
