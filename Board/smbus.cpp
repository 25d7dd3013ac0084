#include "smbus.h"

#include <algorithm>
#include <cerrno>
#include <initializer_list>

namespace kivboard
{
namespace
{

using part = smbus_part;
constexpr std::uint8_t writing = I2C_SMBUS_WRITE;
constexpr std::uint8_t reading = I2C_SMBUS_READ;

constexpr smbus_form forms[] = {
    {I2C_SMBUS_QUICK, writing, writing, part::nothing, part::absent},
    {I2C_SMBUS_QUICK, reading, reading, part::absent, part::nothing},
    {I2C_SMBUS_BYTE, writing, writing, part::command, part::absent},
    {I2C_SMBUS_BYTE, reading, reading, part::absent, part::byte},
    {I2C_SMBUS_BYTE_DATA, writing, writing, part::byte, part::absent},
    {I2C_SMBUS_BYTE_DATA, reading, reading, part::command, part::byte},
    {I2C_SMBUS_WORD_DATA, writing, writing, part::word, part::absent},
    {I2C_SMBUS_WORD_DATA, reading, reading, part::command, part::word},
    {I2C_SMBUS_PROC_CALL, writing, reading, part::word, part::word},
    {I2C_SMBUS_BLOCK_DATA, writing, writing, part::counted, part::absent},
    {I2C_SMBUS_BLOCK_DATA, reading, reading, part::command, part::counted},
    {I2C_SMBUS_BLOCK_PROC_CALL, writing, reading, part::counted, part::counted},
    {I2C_SMBUS_I2C_BLOCK_DATA, writing, writing, part::block, part::absent},
    {I2C_SMBUS_I2C_BLOCK_DATA, reading, reading, part::command, part::block},
    // Programs of old kernels: the data has no count for a read.
    {I2C_SMBUS_I2C_BLOCK_BROKEN, writing, writing, part::block, part::absent},
    {I2C_SMBUS_I2C_BLOCK_BROKEN, reading, reading, part::command, part::whole},
};

bool is_one_of(part sought, std::initializer_list<part> parts)
{
    return std::find(parts.begin(), parts.end(), sought) != parts.end();
}

// The bytes that follow the command.
std::vector<std::uint8_t> payload(part written, const i2c_smbus_data &data)
{
    const std::uint8_t *const block = data.block;
    switch (written) {
    case part::byte:
        return {data.byte};
    case part::word:
        return {static_cast<std::uint8_t>(data.word & 0xff), static_cast<std::uint8_t>(data.word >> 8)};
    case part::counted:
        return {block, block + 1 + block[0]};
    case part::block:
        return {block + 1, block + 1 + block[0]};
    default:
        return {};
    }
}

std::size_t room(part read, const i2c_smbus_data &data)
{
    switch (read) {
    case part::byte:
    case part::counted: // the count; the bus adds the bytes
        return 1;
    case part::word:
        return 2;
    case part::block:
        return data.block[0];
    case part::whole:
        return I2C_SMBUS_BLOCK_MAX;
    default:
        return 0;
    }
}

} // namespace

std::size_t smbus_form::data_size() const
{
    const auto has = [this](std::initializer_list<part> parts) {
        return is_one_of(written, parts) || is_one_of(read, parts);
    };
    return has({part::counted, part::block, part::whole}) ? sizeof(i2c_smbus_data)
           : has({part::word})                            ? sizeof(i2c_smbus_data::word)
           : has({part::byte})                            ? sizeof(i2c_smbus_data::byte)
                                                          : 0;
}

// A read of a block needs the count from the caller.
bool smbus_form::takes_data() const
{
    return is_one_of(written, {part::byte, part::word, part::counted, part::block}) || read == part::block;
}

bool smbus_form::returns_data() const
{
    return !is_one_of(read, {part::absent, part::nothing});
}

const smbus_form *find_smbus_form(std::uint32_t size, std::uint8_t direction)
{
    const auto *const found = std::find_if(std::begin(forms), std::end(forms), [&](const smbus_form &form) {
        return form.size == size && (form.first_direction == direction || form.last_direction == direction);
    });
    return found != std::end(forms) ? found : nullptr;
}

int make_messages(const smbus_form &form, std::uint16_t address, std::uint8_t command,
                  const i2c_smbus_data &data, std::vector<i2c_message> &messages)
{
    const bool has_count = is_one_of(form.written, {part::counted, part::block}) || form.read == part::block;
    if (has_count && data.block[0] > I2C_SMBUS_BLOCK_MAX) {
        return EINVAL;
    }
    if (form.written != part::absent) {
        messages.push_back({address, false, payload(form.written, data)});
    }
    if (!is_one_of(form.written, {part::absent, part::nothing})) {
        std::vector<std::uint8_t> &bytes = messages.back().bytes;
        bytes.insert(bytes.begin(), command);
    }
    if (form.read != part::absent) {
        messages.push_back(
            {address, true, std::vector<std::uint8_t>(room(form.read, data)), form.read == part::counted});
    }
    return 0;
}

void take_answer(const smbus_form &form, const std::vector<i2c_message> &messages, i2c_smbus_data &data)
{
    const std::vector<std::uint8_t> &bytes = messages.back().bytes;
    switch (form.read) {
    case part::word:
        data.word = static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
        break;
    case part::block:
    case part::whole:
        data.block[0] = static_cast<std::uint8_t>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), data.block + 1);
        break;
    default: // a byte, or a count and its bytes
        std::copy(bytes.begin(), bytes.end(), data.block);
    }
}

} // namespace kivboard
