// Registers of I2C devices.

#include "i2c.h"

#include <algorithm>
#include <cerrno>

namespace zol_tool
{

std::string hex(unsigned value, int digits)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*x", digits, value);
    return text;
}

std::string hex_bytes(const std::vector<std::uint8_t> &bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += (text.empty() ? "" : " ") + hex(byte);
    }
    return text;
}

std::optional<std::vector<std::uint16_t>> parse_ranges(std::string_view text, std::uint16_t most)
{
    std::vector<std::uint16_t> numbers;
    while (true) {
        const std::string_view range = text.substr(0, text.find(','));
        const std::size_t mark = range.find('-');
        const auto first = parse_number(range.substr(0, mark), most);
        const auto last = mark != std::string_view::npos ? parse_number(range.substr(mark + 1), most) : first;
        if (!first || !last || *first > *last) {
            return std::nullopt;
        }
        for (std::uint32_t number = *first; number <= *last; ++number) {
            numbers.push_back(static_cast<std::uint16_t>(number));
        }
        if (range.size() == text.size()) {
            return numbers;
        }
        text.remove_prefix(range.size() + 1);
    }
}

std::optional<int> parse_bus(context &with)
{
    const auto bus = parse_number(with.value("--bus"), INT32_MAX);
    if (!bus) {
        usage_error(with, "\"" + with.value("--bus") + "\" is no bus");
        return std::nullopt;
    }
    return static_cast<int>(*bus);
}

std::optional<std::uint16_t> parse_device(context &with)
{
    const auto device = parse_number(with.value("--device"), 0x7f);
    if (!device) {
        usage_error(with, "\"" + with.value("--device") + "\" is no address up to 0x7f");
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(*device);
}

std::optional<std::vector<std::uint16_t>> parse_registers(context &with, const std::string &otherwise)
{
    const std::string text = with.value("--register", otherwise.c_str());
    const std::uint16_t most = with.has("--16") ? 0xffff : 0xff;
    auto registers = parse_ranges(text, most);
    if (!registers) {
        usage_error(with, "\"" + text + "\" is no register up to " + hex(most));
    }
    return registers;
}

std::optional<std::vector<std::uint8_t>> parse_bytes(context &with, std::span<const std::string> from)
{
    std::vector<std::uint8_t> bytes;
    for (const std::string &word : from) {
        const auto byte = parse_number(word, 0xff);
        if (!byte) {
            usage_error(with, "\"" + word + "\" is no byte");
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::uint8_t>(*byte));
    }
    return bytes;
}

std::optional<device_address> parse_address(context &with)
{
    const auto bus = parse_bus(with);
    const auto device = bus ? parse_device(with) : std::nullopt;
    return device ? std::optional(device_address{*bus, *device, with.has("--16")}) : std::nullopt;
}

std::string describe_failure(const device_address &at, const std::error_code &cause, const std::string &place)
{
    // Adapters report a missing acknowledge by either.
    const bool is_unanswered = cause.value() == ENXIO || cause.value() == EREMOTEIO;
    return "bus " + std::to_string(at.bus) + " device " + hex(at.device) + place + ": " +
           (is_unanswered ? "no answer (" + cause.message() + ")" : cause.message());
}

std::optional<registers> registers::open(context &with, const device_address &at)
{
    auto device = zol::i2c_device::open(at.bus, at.device);
    if (!went_well(with, device, "")) {
        return std::nullopt;
    }
    return registers(std::move(*device), at);
}

zol::result<> registers::read(std::uint16_t reg, std::span<std::uint8_t> out)
{
    return at_.is_wide ? device_.read_reg16(reg, out)
                       : device_.read_reg8(static_cast<std::uint8_t>(reg), out);
}

zol::result<> registers::write(std::uint16_t reg, std::span<const std::uint8_t> values)
{
    return at_.is_wide ? device_.write_reg16(reg, values)
                       : device_.write_reg8(static_cast<std::uint8_t>(reg), values);
}

std::string registers::describe_failure(std::uint16_t reg, const zol::result<> &failed) const
{
    return zol_tool::describe_failure(at_, failed.cause() ? failed.cause() : failed.error(),
                                      " register " + name(reg));
}

json as_json(const device_address &at, const std::vector<register_values> &read)
{
    std::vector<json> entries;
    entries.reserve(read.size());
    for (const auto &[reg, values] : read) {
        entries.push_back(
            json::object({{"register", reg}, {"values", std::vector<json>(values.begin(), values.end())}}));
    }
    return json::object({{"bus", at.bus}, {"device", at.device}, {"registers", entries}});
}

namespace
{

void print(context &with, const device_address &at, registers &device,
           const std::vector<register_values> &read)
{
    if (with.json) {
        with.out.answer(as_json(at, read));
        return;
    }
    for (const auto &[reg, values] : read) {
        with.out.line((read.size() > 1 ? device.name(reg) + ": " : "") + hex_bytes(values));
    }
}

int read_registers(context &with, const device_address &at, const std::vector<std::uint16_t> &wanted,
                   std::size_t size)
{
    auto device = registers::open(with, at);
    if (!device) {
        return refused;
    }
    std::vector<register_values> read;
    for (const std::uint16_t reg : wanted) {
        std::vector<std::uint8_t> values(size);
        const auto result = device->read(reg, values);
        if (!result) {
            with.out.error(device->describe_failure(reg, result));
            return refused;
        }
        read.push_back({reg, std::move(values)});
    }
    print(with, at, *device, read);
    return done;
}

// The order of a write: each value to a register of its own, or all to one.
struct write_order {
    std::uint16_t reg;
    std::vector<std::uint8_t> values;
    bool is_fifo;
};

// @return Nothing after a complaint.
std::optional<write_order> parse_write(context &with)
{
    const auto registers = parse_registers(with, "");
    auto values = registers ? parse_bytes(with, with.operands) : std::nullopt;
    if (!values) {
        return std::nullopt;
    }
    const bool is_fifo = with.has("--fifo");
    const std::size_t last = registers->front() + (is_fifo ? 1 : values->size()) - 1;
    std::string mistake;
    if (registers->size() > 1) {
        mistake = "values are written from one register on, not to a range";
    } else if (values->empty()) {
        mistake = "a value is needed";
    } else if (last > (with.has("--16") ? 0xffffU : 0xffU)) {
        mistake = "the values go beyond the last register";
    } else {
        return write_order{registers->front(), std::move(*values), is_fifo};
    }
    usage_error(with, mistake);
    return std::nullopt;
}

int write_registers(context &with, const device_address &at, const write_order &wanted)
{
    auto device = registers::open(with, at);
    if (!device) {
        return refused;
    }
    std::uint16_t reg = wanted.reg;
    for (const std::uint8_t value : wanted.values) {
        const auto result = device->write(reg, {&value, 1});
        if (!result) {
            with.out.error(device->describe_failure(reg, result));
            return refused;
        }
        reg = static_cast<std::uint16_t>(reg + (wanted.is_fifo ? 0 : 1));
    }
    if (with.json) {
        with.out.answer(as_json(at, {{wanted.reg, wanted.values}}));
    }
    return done;
}

} // namespace

int i2c_get(context &with)
{
    const auto at = parse_address(with);
    const auto wanted = at ? parse_registers(with, "") : std::nullopt;
    if (!wanted) {
        return wrong_usage;
    }
    const auto size = parse_number(with.value("--bytes", "1"), most_bytes);
    if (size.value_or(0) == 0) {
        return usage_error(with, "--bytes " + with.value("--bytes") + " is not from 1 to " +
                                     std::to_string(most_bytes));
    }
    const auto library = start(with);
    return library ? read_registers(with, *at, *wanted, *size) : not_started;
}

int i2c_set(context &with)
{
    const auto at = parse_address(with);
    const auto wanted = at ? parse_write(with) : std::nullopt;
    if (!wanted) {
        return wrong_usage;
    }
    const auto library = start(with);
    return library ? write_registers(with, *at, *wanted) : not_started;
}

} // namespace zol_tool
