#include "i2c_node.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "caller_memory.h"

namespace kivboard
{
namespace
{

// The kernel's own limits.
constexpr std::uint32_t most_messages = I2C_RDWR_IOCTL_MAX_MSGS;
constexpr std::uint16_t longest_message = 8192;

// The records of linux/i2c.h and linux/i2c-dev.h as a caller of either width lays them out.
template <typename address>
struct wire_message {
    std::uint16_t addr;
    std::uint16_t flags;
    std::uint16_t len;
    address buf;
};

template <typename address>
struct wire_transfer {
    address msgs;
    std::uint32_t nmsgs;
};

static_assert(sizeof(wire_message<std::uint32_t>) == 12 && sizeof(wire_message<std::uint64_t>) == 16);
static_assert(sizeof(wire_message<std::uintptr_t>) == sizeof(i2c_msg));

template <typename address>
int fetch_messages(const caller_memory &memory, std::uint64_t argument,
                   std::vector<wire_message<address>> &messages)
{
    wire_transfer<address> transfer = {};
    if (const int error = memory.read(argument, &transfer, sizeof transfer); error != 0) {
        return error;
    }
    if (transfer.msgs == 0 || transfer.nmsgs == 0 || transfer.nmsgs > most_messages) {
        return EINVAL;
    }
    messages.resize(transfer.nmsgs);
    if (const int error = memory.read(transfer.msgs, messages.data(), messages.size() * sizeof messages[0]);
        error != 0) {
        return error;
    }
    const bool too_long = std::any_of(messages.begin(), messages.end(),
                                      [](const auto &message) { return message.len > longest_message; });
    const bool unknown_flags = std::any_of(messages.begin(), messages.end(), [](const auto &message) {
        return (message.flags & ~unsigned{I2C_M_RD}) != 0;
    });
    return too_long ? EINVAL : unknown_flags ? EOPNOTSUPP : 0;
}

template <typename address>
int fetch_bytes(const caller_memory &memory, const std::vector<wire_message<address>> &wire,
                std::vector<i2c_message> &messages)
{
    for (const wire_message<address> &message : wire) {
        const bool is_read = (message.flags & I2C_M_RD) != 0;
        messages.push_back({message.addr, is_read, std::vector<std::uint8_t>(message.len)});
        std::vector<std::uint8_t> &bytes = messages.back().bytes;
        if (const int error = is_read ? 0 : memory.read(message.buf, bytes.data(), bytes.size());
            error != 0) {
            return error;
        }
    }
    return 0;
}

template <typename address>
int return_bytes(const caller_memory &memory, const std::vector<wire_message<address>> &wire,
                 const std::vector<i2c_message> &messages)
{
    for (std::size_t i = 0; i < wire.size(); ++i) {
        const std::vector<std::uint8_t> &bytes = messages[i].bytes;
        const int error = messages[i].is_read ? memory.write(wire[i].buf, bytes.data(), bytes.size()) : 0;
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

// Carries out a transfer. @return 0 or an errno value; the messages are empty when they could not be had.
template <typename address>
int carry_out(i2c_bus &bus, const ioctl_request &request, std::vector<i2c_message> &messages)
{
    const caller_memory memory(request.caller);
    std::vector<wire_message<address>> wire;
    int error = fetch_messages(memory, request.argument, wire);
    if (error == 0) {
        error = fetch_bytes(memory, wire, messages);
    }
    if (error != 0) {
        messages.clear();
        return error;
    }
    error = bus.transfer(messages);
    return error != 0 ? error : return_bytes(memory, wire, messages);
}

void explain_forbidden_memory(pid_t caller)
{
    std::fprintf(
        stderr,
        "kivboard: may not look into the memory of process %d; is kernel.yama.ptrace_scope above 1?\n",
        static_cast<int>(caller));
}

} // namespace

int i2c_node::ioctl(const ioctl_request &request)
{
    if (request.command == I2C_FUNCS) {
        const unsigned long functions = I2C_FUNC_I2C;
        const std::size_t width = request.caller_is_32bit ? sizeof(std::uint32_t) : sizeof functions;
        return -caller_memory(request.caller).write(request.argument, &functions, width);
    }
    if (request.command != I2C_RDWR) {
        return -ENOTTY;
    }
    std::vector<i2c_message> messages;
    const int error = request.caller_is_32bit ? carry_out<std::uint32_t>(bus_, request, messages)
                                              : carry_out<std::uint64_t>(bus_, request, messages);
    if (!messages.empty()) {
        journal_.add(describe(number_, messages, error));
    }
    if (error == EPERM) {
        explain_forbidden_memory(request.caller);
    }
    return error != 0 ? -error : static_cast<int>(messages.size());
}

} // namespace kivboard
