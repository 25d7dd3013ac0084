// The files of a pin: decimal texts, like the attributes of a driver.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "board_fs.h"
#include "gpio_names.h"
#include "gpio_pin.h"
#include "journal.h"

namespace kivboard
{

class gpio_node : public device_file
{
public:
    /// @param label  The name of the pin in the journal.
    gpio_node(std::string label, gpio_pin &pin, gpio_attribute attribute, journal &journal)
        : label_(std::move(label)), pin_(pin), attribute_(attribute), journal_(journal)
    {
    }

    [[nodiscard]] bool is_seekable() const override { return true; }
    int open() override;
    int read(std::string &text) override;
    int write(std::string_view data) override;
    /// The irq file has POLLPRI while interrupts are pending; the others are always ready. A file whose polling
    /// fails has POLLERR alone.
    unsigned poll() override;

    /// The bench makes an operation fail or work again, also for files that are open.
    void set_failing(gpio_operation operation, bool failing);

    /// Wakes those who poll, after an interrupt was counted.
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
