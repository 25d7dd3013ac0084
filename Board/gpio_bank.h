// All pins of a board with their files, and the requests of the bench about them.
#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "board_fs.h"
#include "description.h"
#include "gpio_node.h"
#include "gpio_pin.h"
#include "journal.h"
#include "requests.h"

namespace kivboard
{

class gpio_bank
{
public:
    /// The directory of the pins: within the board's file system, and as COMMAND sees it.
    static constexpr char source_root[] = "user_hw";
    static constexpr char target_root[] = "/sys/user_hw";

    /// Adds the files of all pins to the board's. The file system, which owns them, and the journal must
    /// outlive this.
    gpio_bank(const std::vector<pin_description> &pins, board_fs &files, journal &journal);

    /// @return Null when there is no such pin.
    [[nodiscard]] const gpio_pin *state(std::uint32_t number) const;
    static control_reply no_pin(std::uint32_t number);

    [[nodiscard]] bool is_empty() const { return pins_.empty(); }

    control_reply answer(const raise_request &asked);
    control_reply answer(const level_request &asked);
    control_reply answer(const failure_request &asked);

private:
    struct pin {
        std::string label;
        gpio_pin state;
        std::array<gpio_node *, std::size(gpio_attribute_names)> nodes{};
    };

    pin *find(std::uint32_t number);
    std::string interrupt(pin &at, std::uint32_t pulses);

    journal &journal_;
    std::map<std::uint32_t, pin> pins_; // the nodes refer to its values
};

} // namespace kivboard
