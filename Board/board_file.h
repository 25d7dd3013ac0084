// The description of a board: an XML file, read strictly. A mistake in it is one clear error, not a guess.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kivboard
{

/// What a device does not do, although it is there.
enum class refusal { nothing, all, reads, writes };

struct initial_content {
    std::uint32_t at;
    std::vector<std::uint8_t> bytes;
};

struct device_description {
    std::string name;
    std::uint16_t address = 0;  // 7 bits
    unsigned register_bits = 8; // 8 or 16: how wide a register address is on the wire
    std::uint32_t size = 256;   // registers, from 0
    refusal refuses = refusal::nothing;
    std::optional<std::uint32_t> fails_after; // answers that many transfers, then none
    std::vector<initial_content> contents;
};

struct bus_description {
    unsigned number = 0;
    std::vector<device_description> devices;
};

/// The files of a pin, in the order of their names.
enum class gpio_attribute : std::uint8_t { level, irq, irqmask, irqrequest, irqconfig };
inline constexpr std::string_view gpio_attribute_names[] = {"level", "irq", "irqmask", "irqrequest",
                                                            "irqconfig"};

/// What such a file can be made to fail at, in the order of the names.
enum class gpio_operation : std::uint8_t { open, read, write, poll };
inline constexpr std::string_view gpio_operation_names[] = {"open", "read", "write", "poll"};

struct pin_failure {
    gpio_attribute attribute;
    gpio_operation operation;
};

struct pin_description {
    std::uint32_t number = 0;
    bool level = false; // at the start
    std::vector<pin_failure> failures;
};

struct board_description {
    std::vector<bus_description> buses;
    std::vector<pin_description> pins;
};

/// The place of a name in one of the tables above. @return Nothing when it is not there.
template <typename enumeration, std::size_t count>
std::optional<enumeration> find_name(const std::string_view (&names)[count], std::string_view name)
{
    const auto *const found = std::find(std::begin(names), std::end(names), name);
    return found != std::end(names) ? std::optional(static_cast<enumeration>(found - std::begin(names)))
                                    : std::nullopt;
}

/// "level, irq, irqmask, irqrequest or irqconfig"
template <std::size_t count>
std::string list_names(const std::string_view (&names)[count])
{
    std::string list;
    for (std::size_t i = 0; i < count; ++i) {
        list += i == 0 ? "" : i + 1 < count ? ", " : " or ";
        list += names[i];
    }
    return list;
}

/// @param[out] error  "file:line: what is wrong" when there is no board.
std::optional<board_description> read_board_file(const std::string &path, std::string &error);

} // namespace kivboard
