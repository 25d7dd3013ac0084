// The description of a board: its buses with their devices, and its pins.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gpio_names.h"

namespace kivboard
{

/// The transfers that a device does not acknowledge, in the order of the names.
enum class refusal { all, reads, writes, nothing };
inline constexpr std::string_view refusal_names[] = {"all", "reads", "writes"};

/// The cases in which the register pointer advances within a message, in the order of the names. With "bit7" it
/// advances when this bit of the register address is set.
enum class increment { always, never, bit7 };
inline constexpr std::string_view increment_names[] = {"always", "never", "bit7"};

/// The initial values and the behaviour of consecutive registers.
struct register_content {
    std::uint32_t at;
    std::vector<std::uint8_t> bytes; // of the values; none: one register, whose value is 0
    std::uint16_t fixed = 0;         // the bits that a write does not change
    bool clears_on_read = false;

    [[nodiscard]] std::size_t registers(std::size_t value_bytes) const
    {
        return bytes.empty() ? 1 : bytes.size() / value_bytes;
    }
};

struct device_description {
    std::string name;
    std::uint16_t address = 0;  // 7 bits
    unsigned register_bits = 8; // the width of a register address on the wire: 8 or 16
    std::uint32_t size = 256;   // registers, from 0
    refusal refuses = refusal::nothing;
    std::optional<std::uint32_t> fails_after; // acknowledges so many transfers, and none after them
    std::vector<register_content> contents;
    unsigned value_bits = 8; // the width of a register: 8 or 16
    increment increments = increment::always;
    std::uint32_t answers_every = 1;    // acknowledges each n-th transfer only
    std::chrono::microseconds delay{0}; // holds the clock for so long in each transfer
};

struct bus_description {
    unsigned number = 0;
    std::vector<device_description> devices;
    std::string node;  // of the machine, to which the bus is forwarded; empty: a bus of the board
    std::string place; // in the description: "FILE:LINE"
};

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

} // namespace kivboard
