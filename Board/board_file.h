// The description of a board: an XML file, read strictly. A mistake in it is one clear error, not a guess.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
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

struct board_description {
    std::vector<bus_description> buses;
};

/// @param[out] error  "file:line: what is wrong" when there is no board.
std::optional<board_description> read_board_file(const std::string &path, std::string &error);

} // namespace kivboard
