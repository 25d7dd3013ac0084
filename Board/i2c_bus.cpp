#include "i2c_bus.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace kivboard
{

i2c_device::i2c_device(const device_description &description)
    : registers_(description.size), address_bytes_(description.register_bits / 8),
      refuses_(description.refuses), answers_left_(description.fails_after)
{
    for (const initial_content &content : description.contents) {
        std::copy(content.bytes.begin(), content.bytes.end(), registers_.begin() + content.at);
    }
}

bool i2c_device::select()
{
    if (refuses_ == refusal::all || answers_left_ == 0U) {
        return false;
    }
    if (answers_left_) {
        --*answers_left_;
    }
    return true;
}

std::size_t i2c_device::next()
{
    const std::size_t at = pointer_;
    pointer_ = (pointer_ + 1) % registers_.size();
    return at;
}

bool i2c_device::write(const std::vector<std::uint8_t> &bytes)
{
    if (bytes.size() > address_bytes_ && refuses_ == refusal::writes) {
        return false;
    }
    if (bytes.size() < address_bytes_) { // a probe, or half an address: acknowledged, without effect
        return true;
    }
    std::size_t pointer = 0;
    for (std::size_t i = 0; i < address_bytes_; ++i) {
        pointer = pointer << 8 | bytes[i];
    }
    pointer_ = pointer % registers_.size();
    for (std::size_t i = address_bytes_; i < bytes.size(); ++i) {
        registers_[next()] = bytes[i];
    }
    return true;
}

bool i2c_device::read(std::vector<std::uint8_t> &bytes)
{
    if (refuses_ == refusal::reads) {
        return false;
    }
    for (std::uint8_t &byte : bytes) {
        byte = registers_[next()];
    }
    return true;
}

i2c_bus::i2c_bus(const bus_description &description)
{
    for (const device_description &device : description.devices) {
        devices_.emplace(device.address, i2c_device(device));
    }
}

i2c_device *i2c_bus::find(std::uint16_t address)
{
    const auto found = devices_.find(address);
    return found != devices_.end() ? &found->second : nullptr;
}

int i2c_bus::transfer(std::vector<i2c_message> &messages)
{
    const i2c_device *selected = nullptr;
    for (i2c_message &message : messages) {
        i2c_device *const device = find(message.address);
        if (device == nullptr || (device != selected && !device->select())) {
            return ENXIO;
        }
        selected = device;
        if (!(message.is_read ? device->read(message.bytes) : device->write(message.bytes))) {
            return ENXIO;
        }
    }
    return 0;
}

namespace
{

std::string list(const std::vector<std::uint8_t> &bytes)
{
    constexpr std::size_t shown = 32;
    std::string text;
    for (std::size_t i = 0; i < std::min(bytes.size(), shown); ++i) {
        char digits[4];
        std::snprintf(digits, sizeof digits, i > 0 ? " %02x" : "%02x", bytes[i]);
        text += digits;
    }
    return bytes.size() > shown ? text + " ..." : text;
}

std::string outcome(int result)
{
    return result == 0 ? "ok" : result == ENXIO ? "no answer" : "errno " + std::to_string(result);
}

} // namespace

std::string describe(unsigned bus, const std::vector<i2c_message> &messages, int result)
{
    char head[32];
    std::snprintf(head, sizeof head, "i2c-%u 0x%02x", bus, messages.front().address);
    std::string line = head;
    for (const i2c_message &message : messages) {
        const bool unknown = message.is_read && result != 0;
        line += message.is_read ? " R[" : " W[";
        line += unknown ? std::to_string(message.bytes.size()) + " bytes" : list(message.bytes);
        line += "]";
    }
    return line + " " + outcome(result);
}

} // namespace kivboard
