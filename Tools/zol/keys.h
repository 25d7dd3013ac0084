// The keys of the configuration that the library reads: kiv_conf(5) as a table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace zol_tool
{

enum class key_kind { text, number, tokens, bus_node, chip, bias };

struct known_key {
    std::string_view pattern; // '#' stands for a number
    key_kind kind;
    const char *fallback; // null: the library does not start without the key
    const char *meaning;
    std::int32_t least = 0; // of a number
    std::int32_t most = 0;

    /// The library uses so many characters of a value.
    [[nodiscard]] std::size_t longest() const noexcept
    {
        return kind == key_kind::number || kind == key_kind::bias ? 31 : 63;
    }

    /// There is one for each bus, chip or pin.
    [[nodiscard]] bool is_numbered() const noexcept { return pattern.find('#') != std::string_view::npos; }

    /// The name of this key for a bus, chip or pin.
    [[nodiscard]] std::string name(std::string_view number = "N") const;
};

/// In the order of the manual.
std::span<const known_key> known_keys() noexcept;

/// The key that the library knows by a pattern; it must exist.
const known_key &key_of(std::string_view pattern) noexcept;

struct key_match {
    const known_key *key = nullptr; // null: the library does not read such a key
    int number = -1;                // of the bus, chip or pin; -1: the key has none
};
key_match match_key(std::string_view name);

/// @return The known key that a name was probably meant to be; "" if none is similar.
std::string nearest_key(std::string_view name);

} // namespace zol_tool
