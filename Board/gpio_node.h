// The files of a pin: decimal texts, as a driver's attributes are.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "board_file.h"
#include "board_fs.h"
#include "gpio_pin.h"
#include "journal.h"

namespace kivboard
{

class gpio_node : public board_file
{
public:
    /// @param label  How the journal calls the pin.
    gpio_node(std::string label, gpio_pin &pin, gpio_attribute attribute, journal &journal)
        : label_(std::move(label)), pin_(pin), attribute_(attribute), journal_(journal)
    {
    }

    [[nodiscard]] bool is_seekable() const override { return true; }
    int open() override;
    int read(std::string &text) override;
    int write(std::string_view data) override;
    /// POLLPRI while there are interrupts to take, at the file that counts them; the others are always ready.
    /// A file whose polling fails is in error: POLLERR and nothing else.
    unsigned poll() override;

    /// The bench: makes an operation fail, or mends it. Open files are concerned too.
    void set_failing(gpio_operation operation, bool failing);

    /// The bench: the pin has counted.
    void announce() { wake(); }

private:
    [[nodiscard]] bool fails(gpio_operation operation) const;
    int store(std::string_view data);
    void note(const std::string &access, int result);

    std::string label_;
    gpio_pin &pin_;
    gpio_attribute attribute_;
    journal &journal_;
    unsigned failing_ = 0; // a bit per operation
};

} // namespace kivboard
