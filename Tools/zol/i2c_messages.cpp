// Plain messages on an I2C bus. The library reads a register by writing its address first. A device that is only looked for
// should not be written to, so this file sends its own messages, over the descriptor that the library has opened.

#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>

#include "i2c.h"

namespace zol_tool
{

namespace
{

struct message {
    bool is_read;
    std::vector<std::uint8_t> bytes;
};

// Sends messages, with repeated starts between them.
// @return 0, or the error of the system.
int send(const kiv_i2c_handle &bus, std::uint16_t device, std::vector<message> &messages)
{
    std::vector<i2c_msg> raw;
    raw.reserve(messages.size());
    for (message &each : messages) {
        raw.push_back({device, static_cast<std::uint16_t>(each.is_read ? I2C_M_RD : 0),
                       static_cast<std::uint16_t>(each.bytes.size()), each.bytes.data()});
    }
    i2c_rdwr_ioctl_data request = {raw.data(), static_cast<std::uint32_t>(raw.size())};
    return ioctl(bus.fd, I2C_RDWR, &request) < 0 ? errno : 0;
}

int send(const kiv_i2c_handle &bus, std::uint16_t device, message only)
{
    std::vector<message> messages = {std::move(only)};
    return send(bus, device, messages);
}

enum class answer { none, read, write, driver };

// A device in use by a driver of the kernel is left alone, since even a read could disturb it. One that answers a read gets
// no write. One that does not gets its address for a write, without any byte.
answer probe(const kiv_i2c_handle &bus, std::uint16_t device, bool has_empty_writes)
{
    if (ioctl(bus.fd, I2C_SLAVE, static_cast<unsigned long>(device)) != 0 && errno == EBUSY) {
        return answer::driver;
    }
    if (send(bus, device, {true, {0}}) == 0) {
        return answer::read;
    }
    return has_empty_writes && send(bus, device, {false, {}}) == 0 ? answer::write : answer::none;
}

struct found_device {
    std::uint16_t address;
    answer how;
};

constexpr struct {
    answer how;
    const char *name;
    const char *remark;
} answers[] = {{answer::read, "read", ""},
               {answer::write, "write", " answers writes only"},
               {answer::driver, "driver", " is in use by a driver"}};

const auto &description_of(answer how)
{
    return *std::ranges::find(answers, how, [](const auto &each) { return each.how; });
}

void print(context &with, int bus, const std::vector<found_device> &found)
{
    std::vector<json> devices;
    for (const auto &[address, how] : found) {
        devices.push_back(json::object({{"address", address}, {"found", description_of(how).name}}));
        if (!with.json) {
            with.out.line(hex(address) + description_of(how).remark);
        }
    }
    if (with.json) {
        with.out.answer(json::object({{"bus", bus}, {"devices", devices}}));
    }
}

int scan(context &with, int number, const std::vector<std::uint16_t> &addresses)
{
    auto opened = zol::i2c_device::open(number, 0);
    if (!went_well(with, opened, "")) {
        return refused;
    }
    const kiv_i2c_handle &bus = *opened->get();
    unsigned long functions = 0;
    if (ioctl(bus.fd, I2C_FUNCS, &functions) != 0 || (functions & I2C_FUNC_I2C) == 0) {
        return refuse(with, "its node is no I2C bus that sends plain messages",
                      "bus " + std::to_string(number));
    }
    std::vector<found_device> found;
    for (const std::uint16_t address : addresses) {
        const answer how = probe(bus, address, (functions & I2C_FUNC_SMBUS_QUICK) != 0);
        if (how != answer::none) {
            found.push_back({address, how});
        }
    }
    if (found.empty() && !with.json) {
        return refuse(with, "no device answers", "bus " + std::to_string(number));
    }
    print(with, number, found);
    return found.empty() ? refused : done;
}

// The message of "w" with its bytes, or of "r" with its count. @return Nothing after a complaint.
std::optional<message> parse_message(context &with, const std::string &kind,
                                     std::span<const std::string> rest)
{
    if (kind == "w") {
        auto bytes = parse_bytes(with, rest);
        return bytes ? std::optional(message{false, std::move(*bytes)}) : std::nullopt;
    }
    const std::uint32_t count = rest.size() == 1 ? parse_number(rest.front(), most_bytes).value_or(0) : 0;
    if (kind == "r" && count > 0) {
        return message{true, std::vector<std::uint8_t>(count)};
    }
    usage_error(with, kind == "r" ? "r needs a number from 1 to " + std::to_string(most_bytes)
                                  : "\"" + kind + "\" is no message: w BYTE... or r COUNT");
    return std::nullopt;
}

// Takes the words "w 0x0f r 2" apart. @return Nothing after a complaint.
std::optional<std::vector<message>> parse_messages(context &with)
{
    std::vector<message> messages;
    const words &all = with.operands;
    for (auto at = all.begin(); at != all.end();) {
        const auto end =
            std::find_if(at + 1, all.end(), [](const auto &word) { return word == "r" || word == "w"; });
        auto next = parse_message(with, *at, {at + 1, end});
        if (!next) {
            return std::nullopt;
        }
        messages.push_back(std::move(*next));
        at = end;
    }
    if (messages.empty() || messages.size() > I2C_RDWR_IOCTL_MAX_MSGS) {
        usage_error(with, "from 1 to " + std::to_string(I2C_RDWR_IOCTL_MAX_MSGS) + " messages are needed");
        return std::nullopt;
    }
    return messages;
}

void print(context &with, const device_address &at, const std::vector<message> &messages)
{
    std::vector<json> read;
    for (const auto &[is_read, bytes] : messages) {
        if (is_read) {
            read.emplace_back(std::vector<json>(bytes.begin(), bytes.end()));
        }
        if (is_read && !with.json) {
            with.out.line(hex_bytes(bytes));
        }
    }
    if (with.json) {
        with.out.answer(json::object({{"bus", at.bus}, {"device", at.device}, {"read", read}}));
    }
}

} // namespace

int i2c_scan(context &with)
{
    const auto bus = parse_bus(with);
    if (!bus) {
        return wrong_usage;
    }
    const std::string range = with.value("--device", "0x08-0x77");
    const auto addresses = parse_ranges(range, 0x7f);
    if (!addresses) {
        return usage_error(with, "\"" + range + "\" is no range up to 0x7f");
    }
    const auto library = start(with);
    return library ? scan(with, *bus, *addresses) : not_started;
}

int i2c_transfer(context &with)
{
    const auto at = parse_address(with);
    auto messages = at ? parse_messages(with) : std::nullopt;
    if (!messages) {
        return wrong_usage;
    }
    const auto library = start(with);
    if (!library) {
        return not_started;
    }
    auto device = zol::i2c_device::open(at->bus, at->device);
    if (!went_well(with, device, "")) {
        return refused;
    }
    const int error = send(*device->get(), at->device, *messages);
    if (error != 0) {
        return refuse(with, describe_failure(*at, {error, std::generic_category()}));
    }
    print(with, *at, *messages);
    return done;
}

} // namespace zol_tool
