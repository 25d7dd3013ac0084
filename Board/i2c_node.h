// The device node of an I2C bus, and the state of each program that has opened it.
#pragma once

#include "board_fs.h"
#include "i2c_bus.h"
#include "journal.h"

namespace kivboard
{

class i2c_node : public device_file
{
public:
    i2c_node(unsigned number, i2c_bus &bus, journal &journal) : number_(number), bus_(bus), journal_(journal)
    {
    }

    std::unique_ptr<open_file> make_open_file() override;

private:
    unsigned number_;
    i2c_bus &bus_;
    journal &journal_;
};

/// An open file of the node. Its device and its flags are its own, as in the kernel.
class i2c_client : public open_file
{
public:
    i2c_client(unsigned number, i2c_bus &bus, journal &journal)
        : number_(number), bus_(bus), journal_(journal)
    {
    }

    int read(std::size_t offset, std::size_t size, std::string &data) override;
    int write(std::string_view data) override;
    int ioctl(const ioctl_request &request) override;
    [[nodiscard]] board_clock::time_point ready_at() const override { return ready_at_; }

private:
    int show_functions(const ioctl_request &request);
    int select(const ioctl_request &request);
    int select_ten_bits(const ioctl_request &request);
    int select_error_check(const ioctl_request &request);
    int set_retries(const ioctl_request &request);
    int set_timeout(const ioctl_request &request);
    int transfer_combined(const ioctl_request &request);
    int transfer_smbus(const ioctl_request &request);

    int transfer(std::vector<i2c_message> &messages);
    int transfer_to_selected(std::vector<i2c_message> &messages);

    unsigned number_;
    i2c_bus &bus_;
    journal &journal_;
    std::uint16_t address_ = 0;
    bool has_ten_bits_ = false;
    board_clock::time_point ready_at_;
};

} // namespace kivboard
