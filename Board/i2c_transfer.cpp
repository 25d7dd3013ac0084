#include "i2c_transfer.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <algorithm>
#include <cerrno>

#include "caller_memory.h"
#include "smbus.h"

namespace kivboard
{
namespace
{

// The kernel's own limits.
constexpr std::uint32_t most_messages = I2C_RDWR_IOCTL_MAX_MSGS;
constexpr std::uint16_t longest_message = 8192;

// The records of linux/i2c.h and linux/i2c-dev.h, as 32-bit and 64-bit callers lay them out.
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

template <typename address>
struct wire_smbus {
    std::uint8_t read_write;
    std::uint8_t command;
    std::uint32_t size;
    address data;
};

static_assert(sizeof(wire_message<std::uint32_t>) == 12 && sizeof(wire_message<std::uint64_t>) == 16);
static_assert(sizeof(wire_message<std::uintptr_t>) == sizeof(i2c_msg));
static_assert(sizeof(wire_smbus<std::uint32_t>) == 12 && sizeof(wire_smbus<std::uint64_t>) == 16);
static_assert(sizeof(wire_smbus<std::uintptr_t>) == sizeof(i2c_smbus_ioctl_data));

// Everything is fetched before the first message is carried out: a bad address changes no device.
template <typename address>
int fetch_records(const caller_memory &memory, std::uint64_t argument,
                  std::vector<wire_message<address>> &records)
{
    wire_transfer<address> transfer = {};
    if (const int error = memory.read(argument, &transfer, sizeof transfer); error != 0) {
        return error;
    }
    if (transfer.msgs == 0 || transfer.nmsgs == 0 || transfer.nmsgs > most_messages) {
        return EINVAL;
    }
    records.resize(transfer.nmsgs);
    if (const int error = memory.read(transfer.msgs, records.data(), records.size() * sizeof records[0]);
        error != 0) {
        return error;
    }
    const bool too_long = std::any_of(records.begin(), records.end(),
                                      [](const auto &record) { return record.len > longest_message; });
    const bool unknown_flags = std::any_of(records.begin(), records.end(), [](const auto &record) {
        return (record.flags & ~unsigned{I2C_M_RD | I2C_M_RECV_LEN}) != 0;
    });
    return too_long ? EINVAL : unknown_flags ? EOPNOTSUPP : 0;
}

// The caller's first byte is the room beside the bytes that the device counts.
template <typename address>
int prepare_counted(const caller_memory &memory, const wire_message<address> &record, i2c_message &message)
{
    std::uint8_t room = 0;
    if (!message.is_read || record.len < 1) {
        return EINVAL;
    }
    if (const int error = memory.read(record.buf, &room, sizeof room); error != 0) {
        return error;
    }
    if (room < 1 || record.len < room + I2C_SMBUS_BLOCK_MAX) {
        return EINVAL;
    }
    message.is_counted = true;
    message.bytes.resize(room);
    return 0;
}

template <typename address>
int fetch_message(const caller_memory &memory, const wire_message<address> &record, i2c_message &message)
{
    if ((record.flags & I2C_M_RECV_LEN) != 0) {
        return prepare_counted(memory, record, message);
    }
    message.bytes.resize(record.len);
    return memory.read(record.buf, message.bytes.data(),
                       record.len); // the kernel fetches those of a read, too
}

template <typename address>
int fetch_messages(const caller_memory &memory, const std::vector<wire_message<address>> &records,
                   std::vector<i2c_message> &messages)
{
    for (const wire_message<address> &record : records) {
        messages.push_back({record.addr, (record.flags & I2C_M_RD) != 0, {}});
        if (const int error = fetch_message(memory, record, messages.back()); error != 0) {
            return error;
        }
    }
    return 0;
}

template <typename address>
int return_bytes(const caller_memory &memory, const std::vector<wire_message<address>> &records,
                 const std::vector<i2c_message> &messages)
{
    for (std::size_t i = 0; i < records.size(); ++i) {
        const std::vector<std::uint8_t> &bytes = messages[i].bytes;
        const int error = messages[i].is_read ? memory.write(records[i].buf, bytes.data(), bytes.size()) : 0;
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

template <typename address>
int transfer_messages_of(const ioctl_request &request, const transfer_call &transfer, std::size_t &count)
{
    const caller_memory memory(request.caller);
    std::vector<wire_message<address>> records;
    std::vector<i2c_message> messages;
    int error = fetch_records(memory, request.argument, records);
    error = error != 0 ? error : fetch_messages(memory, records, messages);
    error = error != 0 ? error : transfer(messages);
    count = messages.size();
    return error != 0 ? error : return_bytes(memory, records, messages);
}

template <typename address>
int transfer_smbus_of(const ioctl_request &request, std::uint16_t device, const transfer_call &transfer)
{
    const caller_memory memory(request.caller);
    wire_smbus<address> asked = {};
    if (const int error = memory.read(request.argument, &asked, sizeof asked); error != 0) {
        return error;
    }
    const smbus_form *const form = find_smbus_form(asked.size, asked.read_write);
    if (form == nullptr || (form->data_size() > 0 && asked.data == 0)) {
        return EINVAL;
    }
    i2c_smbus_data data = {};
    std::vector<i2c_message> messages;
    int error = form->takes_data() ? memory.read(asked.data, &data, form->data_size()) : 0;
    error = error != 0 ? error : make_messages(*form, device, asked.command, data, messages);
    error = error != 0 ? error : transfer(messages);
    if (error != 0 || !form->returns_data()) {
        return error;
    }
    take_answer(*form, messages, data);
    return memory.write(asked.data, &data, form->data_size());
}

} // namespace

int transfer_messages(const ioctl_request &request, const transfer_call &transfer, std::size_t &count)
{
    return request.caller_is_32bit ? transfer_messages_of<std::uint32_t>(request, transfer, count)
                                   : transfer_messages_of<std::uint64_t>(request, transfer, count);
}

int transfer_smbus(const ioctl_request &request, std::uint16_t address, const transfer_call &transfer)
{
    return request.caller_is_32bit ? transfer_smbus_of<std::uint32_t>(request, address, transfer)
                                   : transfer_smbus_of<std::uint64_t>(request, address, transfer);
}

} // namespace kivboard
