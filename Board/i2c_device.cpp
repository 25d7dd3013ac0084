#include "i2c_device.h"

#include <limits>

namespace kivboard
{
namespace
{

constexpr std::size_t increment_bit = 0x80;
constexpr std::uint64_t without_end = std::numeric_limits<std::uint64_t>::max();

// A value of one or two bytes, the most significant one first.
std::size_t join(const std::uint8_t *bytes, std::size_t count)
{
    std::size_t value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

} // namespace

i2c_device::i2c_device(const device_description &description)
    : cells_(description.size), address_bytes_(description.register_bits / 8),
      value_bytes_(description.value_bits / 8), increments_(description.increments),
      refuses_(description.refuses), answers_left_(description.fails_after.value_or(without_end)),
      answers_every_(description.answers_every), delay_(description.delay)
{
    advances_ = increments_ == increment::always;
    for (const register_content &content : description.contents) {
        set_content(content);
    }
}

void i2c_device::set_content(const register_content &content)
{
    for (std::size_t i = 0; i < content.registers(value_bytes_); ++i) {
        cell &changed = cells_[content.at + i];
        if (!content.bytes.empty()) {
            changed.value =
                static_cast<std::uint16_t>(join(content.bytes.data() + i * value_bytes_, value_bytes_));
        }
        changed.fixed = content.fixed;
        changed.clears = content.clears_on_read;
    }
}

bool i2c_device::may_answer_later() const
{
    return refuses_ != refusal::all && answers_left_ > 0 && answers_every_ > 1;
}

bool i2c_device::select()
{
    if (refuses_ == refusal::all || answers_left_ == 0 || ++addressed_ < answers_every_) {
        return false;
    }
    addressed_ = 0;
    --answers_left_;
    return true;
}

void i2c_device::point_to(std::size_t address)
{
    if (increments_ == increment::bit7) {
        advances_ = (address & increment_bit) != 0;
        address &= ~increment_bit;
    }
    pointer_ = address % cells_.size();
}

void i2c_device::advance()
{
    pointer_ = advances_ ? (pointer_ + 1) % cells_.size() : pointer_;
}

bool i2c_device::write(const std::vector<std::uint8_t> &bytes)
{
    if (bytes.size() > address_bytes_ && refuses_ == refusal::writes) {
        return false;
    }
    if (bytes.size() < address_bytes_) { // a probe, or an incomplete register address
        return true;
    }
    point_to(join(bytes.data(), address_bytes_));
    // The last value may be incomplete; it changes nothing.
    for (std::size_t at = address_bytes_; at + value_bytes_ <= bytes.size(); at += value_bytes_) {
        cell &changed = cells_[pointer_];
        const std::size_t value = join(bytes.data() + at, value_bytes_);
        changed.value =
            static_cast<std::uint16_t>((changed.value & changed.fixed) | (value & ~changed.fixed));
        advance();
    }
    return true;
}

bool i2c_device::start_read()
{
    byte_ = 0;
    return refuses_ != refusal::reads;
}

std::uint8_t i2c_device::read_byte()
{
    cell &from = cells_[pointer_];
    const auto byte = static_cast<std::uint8_t>(from.value >> 8 * (value_bytes_ - 1 - byte_));
    if (++byte_ == value_bytes_) {
        byte_ = 0;
        from.value = from.clears ? 0 : from.value;
        advance();
    }
    return byte;
}

} // namespace kivboard
