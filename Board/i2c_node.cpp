#include "i2c_node.h"

#include <linux/i2c-dev.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "caller_memory.h"
#include "i2c_transfer.h"

namespace kivboard
{
namespace
{

constexpr std::size_t longest_transfer = 8192; // of read() and write(), as in the kernel
constexpr std::uint64_t highest_address = 0x7f;
constexpr std::uint64_t highest_ten_bit_address = 0x3ff;

// COMMAND sees EPERM only, which tells nobody what to do.
void complain_of_forbidden_memory(pid_t caller)
{
    std::fprintf(
        stderr,
        "kivboard: access to the memory of process %d is forbidden; is kernel.yama.ptrace_scope above 1?\n",
        static_cast<int>(caller));
}

} // namespace

std::unique_ptr<open_file> i2c_node::make_open_file()
{
    return std::make_unique<i2c_client>(number_, bus_, journal_);
}

int i2c_client::ioctl(const ioctl_request &request)
{
    static constexpr struct {
        unsigned command;
        int (i2c_client::*answer)(const ioctl_request &request);
    } answers[] = {
        {I2C_FUNCS, &i2c_client::show_functions},   {I2C_SLAVE, &i2c_client::select},
        {I2C_SLAVE_FORCE, &i2c_client::select},     {I2C_TENBIT, &i2c_client::select_ten_bits},
        {I2C_PEC, &i2c_client::select_error_check}, {I2C_RETRIES, &i2c_client::set_retries},
        {I2C_TIMEOUT, &i2c_client::set_timeout},    {I2C_RDWR, &i2c_client::transfer_combined},
        {I2C_SMBUS, &i2c_client::transfer_smbus},
    };
    const auto *const found = std::find_if(std::begin(answers), std::end(answers),
                                           [&](const auto &row) { return row.command == request.command; });
    if (found == std::end(answers)) {
        return -ENOTTY;
    }
    ready_at_ = {};
    const int result = (this->*found->answer)(request);
    if (result == -EPERM) {
        complain_of_forbidden_memory(request.caller);
    }
    return result;
}

int i2c_client::show_functions(const ioctl_request &request)
{
    const unsigned long functions = bus_.functions();
    const std::size_t width = request.caller_is_32bit ? sizeof(std::uint32_t) : sizeof functions;
    return -caller_memory(request.caller).write(request.argument, &functions, width);
}

int i2c_client::select(const ioctl_request &request)
{
    if (request.argument > (has_ten_bits_ ? highest_ten_bit_address : highest_address)) {
        return -EINVAL;
    }
    const auto address = static_cast<std::uint16_t>(request.argument);
    const int error = request.command == I2C_SLAVE ? bus_.claim(address) : 0;
    address_ = error == 0 ? address : address_;
    return -error;
}

// Accepted even without such addresses; the transfers fail.
int i2c_client::select_ten_bits(const ioctl_request &request)
{
    has_ten_bits_ = request.argument != 0;
    return 0;
}

// Accepted and without effect, as by every adapter that has no packet error checking.
int i2c_client::select_error_check(const ioctl_request &)
{
    return 0;
}

int i2c_client::set_retries(const ioctl_request &request)
{
    if (request.argument > INT_MAX) {
        return -EINVAL;
    }
    bus_.set_retries(static_cast<unsigned long>(request.argument));
    return 0;
}

int i2c_client::set_timeout(const ioctl_request &request)
{
    if (request.argument > INT_MAX) {
        return -EINVAL;
    }
    bus_.set_timeout(std::chrono::milliseconds(request.argument) * 10);
    return 0;
}

int i2c_client::transfer(std::vector<i2c_message> &messages)
{
    const int error = bus_.transfer(messages);
    ready_at_ = bus_.busy_until();
    journal_.add(describe(number_, messages, error) + bus_.remark(),
                 {i2c_target{number_, messages.front().address}, error});
    return error;
}

int i2c_client::transfer_to_selected(std::vector<i2c_message> &messages)
{
    ready_at_ = {};
    return has_ten_bits_ ? EOPNOTSUPP : transfer(messages);
}

int i2c_client::transfer_combined(const ioctl_request &request)
{
    std::size_t count = 0;
    const int error = transfer_messages(
        request, [this](std::vector<i2c_message> &messages) { return transfer(messages); }, count);
    return error != 0 ? -error : static_cast<int>(count);
}

int i2c_client::transfer_smbus(const ioctl_request &request)
{
    return -kivboard::transfer_smbus(request, address_, [this](std::vector<i2c_message> &messages) {
        return transfer_to_selected(messages);
    });
}

int i2c_client::read(std::size_t, std::size_t size, std::string &data)
{
    std::vector<i2c_message> messages = {
        {address_, true, std::vector<std::uint8_t>(std::min(size, longest_transfer))}};
    const int error = transfer_to_selected(messages);
    data.assign(messages[0].bytes.begin(), messages[0].bytes.end());
    return -error;
}

int i2c_client::write(std::string_view data)
{
    data = data.substr(0, longest_transfer);
    std::vector<i2c_message> messages = {{address_, false, {data.begin(), data.end()}}};
    const int error = transfer_to_selected(messages);
    return error != 0 ? -error : static_cast<int>(data.size());
}

} // namespace kivboard
