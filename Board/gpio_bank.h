// All pins of a board, with their files, and what the bench asks of them.
#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "board_file.h"
#include "board_fs.h"
#include "control.h"
#include "gpio_node.h"
#include "gpio_pin.h"
#include "journal.h"

namespace kivboard
{

class gpio_bank
{
public:
    /// What holds the pins' files, within the board's file system and for COMMAND.
    static constexpr char source_root[] = "user_hw";
    static constexpr char target_root[] = "/sys/user_hw";

    /// Adds the files of all pins to the board's. The file system, which owns them, and the journal must
    /// outlive this.
    gpio_bank(const std::vector<pin_description> &pins, board_fs &files, journal &journal);

    [[nodiscard]] bool is_empty() const { return pins_.empty(); }

    /// The bench's requests, with as many words as requests.h says.
    control_reply raise(const std::vector<std::string> &words);
    control_reply level(const std::vector<std::string> &words);
    control_reply fail(const std::vector<std::string> &words);
    control_reply mend(const std::vector<std::string> &words);

private:
    struct pin {
        std::string label;
        gpio_pin state;
        std::array<gpio_node *, std::size(gpio_attribute_names)> nodes{};
    };

    pin *find(const std::string &number);
    std::string interrupt(pin &at, std::uint32_t pulses);
    control_reply set_failing(const std::vector<std::string> &words, bool failing);

    journal &journal_;
    std::map<std::uint32_t, pin> pins_; // the nodes refer to what is in it
};

} // namespace kivboard
