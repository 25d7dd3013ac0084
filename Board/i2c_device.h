// A device on an I2C bus: its registers, and its behaviour on the wire.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "description.h"

namespace kivboard
{

/// A device with registers. A write sets the register pointer and stores the values that follow; a read starts
/// at the pointer. Both advance it as the description says, and it wraps after the last register.
class i2c_device
{
public:
    explicit i2c_device(const device_description &description);

    /// Addresses the device. @return True when it acknowledges.
    bool select();
    /// True when the device may acknowledge if it is addressed again.
    [[nodiscard]] bool may_answer_later() const;
    /// The time for which it holds the clock in each transfer.
    [[nodiscard]] std::chrono::microseconds delay() const { return delay_; }

    /// A message to the device. @return True when the device acknowledges it.
    bool write(const std::vector<std::uint8_t> &bytes);

    /// A message from the device. @return True when the device acknowledges it.
    bool start_read();
    std::uint8_t read_byte();

    /// The bench shows and sets registers of every device, whatever it refuses on the wire.
    [[nodiscard]] std::size_t size() const { return cells_.size(); }
    [[nodiscard]] std::size_t value_bytes() const { return value_bytes_; }
    [[nodiscard]] std::uint16_t peek(std::size_t at) const { return cells_[at].value; }
    void poke(std::size_t at, std::uint16_t value) { cells_[at].value = value; }

private:
    struct cell {
        std::uint16_t value = 0;
        std::uint16_t fixed = 0; // the bits that a write does not change
        bool clears = false;     // when it is read
    };

    void set_content(const register_content &content);
    void point_to(std::size_t address);
    void advance();

    std::vector<cell> cells_;
    std::size_t pointer_ = 0;
    std::size_t byte_ = 0; // of the value that is being read
    bool advances_ = true;
    std::size_t address_bytes_;
    std::size_t value_bytes_;
    increment increments_;
    refusal refuses_;
    std::uint64_t answers_left_;
    std::uint32_t answers_every_;
    std::uint32_t addressed_ = 0; // since it acknowledged
    std::chrono::microseconds delay_;
};

} // namespace kivboard
