// The files of a pin and their operations, by name: in board descriptions, in requests and in the journal.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

namespace kivboard
{

/// The files of a pin, in the order of their names.
enum class gpio_attribute : std::uint8_t { level, irq, irqmask, irqrequest, irqconfig };
inline constexpr std::string_view gpio_attribute_names[] = {"level", "irq", "irqmask", "irqrequest",
                                                            "irqconfig"};

/// The operations that such a file can be made to fail at, in the order of the names.
enum class gpio_operation : std::uint8_t { open, read, write, poll };
inline constexpr std::string_view gpio_operation_names[] = {"open", "read", "write", "poll"};

/// @return Nothing when the table does not hold the name.
template <typename enumeration, std::size_t count>
std::optional<enumeration> find_name(const std::string_view (&names)[count], std::string_view name)
{
    const auto *const found = std::find(std::begin(names), std::end(names), name);
    return found != std::end(names) ? std::optional(static_cast<enumeration>(found - std::begin(names)))
                                    : std::nullopt;
}

/// "level, irq, irqmask, irqrequest or irqconfig"
template <std::size_t count>
std::string join_names(const std::string_view (&names)[count])
{
    std::string joined;
    for (std::size_t i = 0; i < count; ++i) {
        joined += i == 0 ? "" : i + 1 < count ? ", " : " or ";
        joined += names[i];
    }
    return joined;
}

} // namespace kivboard
