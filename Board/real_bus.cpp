#include "real_bus.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kivboard
{
namespace
{

// A counted read needs room for the longest block. Its first byte tells the kernel the room beside the block.
i2c_msg record_of(i2c_message &message)
{
    i2c_msg record = {message.address, message.is_read ? std::uint16_t{I2C_M_RD} : std::uint16_t{0}, 0,
                      nullptr};
    if (message.is_counted) {
        const std::size_t room = message.bytes.size();
        message.bytes.resize(room + I2C_SMBUS_BLOCK_MAX);
        message.bytes[0] = static_cast<std::uint8_t>(room);
        record.flags |= I2C_M_RECV_LEN;
    }
    record.len = static_cast<std::uint16_t>(message.bytes.size());
    record.buf = message.bytes.data();
    return record;
}

} // namespace

real_bus::real_bus(kiv::unique_fd node, unsigned long functions)
    : node_(std::move(node)), functions_(functions & board_functions)
{
}

std::unique_ptr<real_bus> real_bus::open(const bus_description &description, std::string &problem)
{
    const std::string node = "the node " + description.node;
    kiv::unique_fd opened(::open(description.node.c_str(), O_RDWR | O_CLOEXEC));
    unsigned long functions = 0;
    if (!opened.is_open()) {
        problem = description.place + ": can't open " + node + ": " + std::strerror(errno);
        return nullptr;
    }
    if (ioctl(opened.get(), I2C_FUNCS, &functions) != 0) {
        problem = description.place + ": " + node + " is no I2C bus";
        return nullptr;
    }
    if ((functions & I2C_FUNC_I2C) == 0) {
        problem = description.place + ": " + node + " is an SMBus without plain I2C messages";
        return nullptr;
    }
    return std::unique_ptr<real_bus>(new real_bus(std::move(opened), functions));
}

int real_bus::claim(std::uint16_t address)
{
    return ioctl(node_.get(), I2C_SLAVE, static_cast<unsigned long>(address)) == 0 ? 0 : errno;
}

void real_bus::set_retries(unsigned long retries)
{
    ioctl(node_.get(), I2C_RETRIES, retries);
}

void real_bus::set_timeout(std::chrono::milliseconds timeout)
{
    ioctl(node_.get(), I2C_TIMEOUT, static_cast<unsigned long>(timeout.count() / 10));
}

int real_bus::transfer(std::vector<i2c_message> &messages)
{
    std::vector<std::size_t> rooms;
    std::vector<i2c_msg> records;
    for (i2c_message &message : messages) {
        rooms.push_back(message.bytes.size());
        records.push_back(record_of(message));
    }
    i2c_rdwr_ioctl_data request = {records.data(), static_cast<std::uint32_t>(records.size())};
    const auto begun = board_clock::now();
    const int error = ioctl(node_.get(), I2C_RDWR, &request) >= 0 ? 0 : errno;
    duration_ = std::chrono::duration_cast<std::chrono::microseconds>(board_clock::now() - begun);
    for (std::size_t i = 0; i < messages.size(); ++i) {
        std::vector<std::uint8_t> &bytes = messages[i].bytes;
        const std::size_t block = messages[i].is_counted && error == 0 ? bytes[0] : 0;
        bytes.resize(std::min(bytes.size(), rooms[i] + block));
    }
    return error;
}

std::string real_bus::remark() const
{
    return ", " + std::to_string(duration_.count()) + " us";
}

} // namespace kivboard
