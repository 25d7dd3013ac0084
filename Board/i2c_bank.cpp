#include "i2c_bank.h"

#include <algorithm>
#include <cerrno>

#include "hex.h"
#include "i2c_node.h"
#include "real_bus.h"

namespace kivboard
{
namespace
{

// The folders that list the buses and their devices, as the kernel has them below /sys.
constexpr char bus_list[] = "sys/class/i2c-dev";
constexpr char device_list[] = "sys/bus/i2c/devices";

constexpr unsigned device_major = 89; // of i2c-dev

std::string node_name(std::uint32_t bus)
{
    return "i2c-" + std::to_string(bus);
}

// "4-0018", the kernel's name of a device.
std::string device_name(std::uint32_t bus, std::uint16_t address)
{
    return std::to_string(bus) + "-" + hex_number(address, 4).substr(2);
}

class constant_text : public device_file
{
public:
    explicit constant_text(std::string text) : text_(std::move(text)) {}

    [[nodiscard]] bool is_seekable() const override { return true; }
    int read(std::string &text) override
    {
        text = text_;
        return 0;
    }
    int write(std::string_view) override { return -EACCES; }

private:
    std::string text_;
};

// Programs look for the names of buses there.
void list(const bus_description &bus, board_fs &files)
{
    const auto add = [&files](const std::string &path, const std::string &text) {
        files.add(path, std::make_unique<constant_text>(text + "\n"));
    };
    const std::string node = node_name(bus.number);
    const std::string name = "kivboard bus " + std::to_string(bus.number);
    const std::string listed = std::string(bus_list) + "/" + node;
    add(listed + "/name", name);
    add(listed + "/device/name", name);
    add(listed + "/dev", std::to_string(device_major) + ":" + std::to_string(bus.number));
    add(std::string(device_list) + "/" + node + "/name", name);
    for (const device_description &device : bus.devices) {
        add(std::string(device_list) + "/" + device_name(bus.number, device.address) + "/name", device.name);
    }
}

} // namespace

i2c_bank::i2c_bank(const std::vector<bus_description> &buses, board_fs &files, journal &journal)
    : journal_(journal)
{
    for (const bus_description &description : buses) {
        std::unique_ptr<i2c_bus> bus = make(description);
        if (bus == nullptr) {
            return;
        }
        i2c_bus &added = *buses_.emplace(description.number, std::move(bus)).first->second;
        files.add(node_name(description.number),
                  std::make_unique<i2c_node>(description.number, added, journal));
        list(description, files);
    }
}

// @return Null when the bus cannot be forwarded.
std::unique_ptr<i2c_bus> i2c_bank::make(const bus_description &description)
{
    if (description.node.empty()) {
        return std::make_unique<described_bus>(description);
    }
    return real_bus::open(description, problem_);
}

std::vector<bind_graft> i2c_bank::grafts() const
{
    std::vector<bind_graft> grafts;
    for (const auto &[number, bus] : buses_) {
        grafts.push_back({node_name(number), "/dev/" + node_name(number)});
    }
    for (const char *const folder : {bus_list, device_list}) {
        if (!buses_.empty()) {
            grafts.push_back({folder, "/" + std::string(folder)});
        }
    }
    return grafts;
}

// The device, if it has that many registers at the place. @param[out] otherwise  The reply when it has not.
i2c_device *i2c_bank::find(const register_place &place, std::size_t count, control_reply &otherwise)
{
    const auto bus = buses_.find(place.bus);
    if (bus == buses_.end()) {
        otherwise = control_reply::error("there is no bus " + std::to_string(place.bus));
        return nullptr;
    }
    if (bus->second->is_real()) {
        otherwise = control_reply::error("the devices of bus " + std::to_string(place.bus) +
                                         " are the machine's; use i2cget and i2cset");
        return nullptr;
    }
    i2c_device *const device = bus->second->find(place.address);
    if (device == nullptr) {
        otherwise = control_reply::error("there is no device " + hex_number(place.address) + " on bus " +
                                         std::to_string(place.bus));
        return nullptr;
    }
    if (count == 0 || place.index >= device->size() || count > device->size() - place.index) {
        otherwise = control_reply::error("the device has the registers 0 to " +
                                         hex_number(static_cast<std::uint32_t>(device->size() - 1)));
        return nullptr;
    }
    return device;
}

namespace
{

// The digits of a register's value.
int digits(const i2c_device &device)
{
    return static_cast<int>(2 * device.value_bytes());
}

} // namespace

control_reply i2c_bank::answer(const peek_request &asked)
{
    control_reply reply;
    const i2c_device *const device = find(asked.from, asked.count, reply);
    for (std::size_t i = 0; device != nullptr && i < asked.count; ++i) {
        reply.text += (i > 0 ? " " : "") + hex_number(device->peek(asked.from.index + i), digits(*device));
    }
    reply.text += device != nullptr ? "\n" : "";
    return reply;
}

control_reply i2c_bank::answer(const poke_request &asked)
{
    control_reply reply;
    i2c_device *const device = find(asked.to, asked.values.size(), reply);
    if (device == nullptr) {
        return reply;
    }
    const std::uint32_t highest = device->value_bytes() == 1 ? 0xff : 0xffff;
    const std::uint16_t largest = *std::max_element(asked.values.begin(), asked.values.end());
    if (largest > highest) {
        return control_reply::error(std::to_string(largest) + " is no value of a register; use 0 to " +
                                    std::to_string(highest));
    }
    const std::string line = node_name(asked.to.bus) + " " + hex_number(asked.to.address) + " poke " +
                             hex_number(asked.to.index) + "=[";
    for (std::size_t i = 0; i < asked.values.size(); ++i) {
        device->poke(asked.to.index + i, asked.values[i]);
    }
    journal_.add(line + hex_values(asked.values, digits(*device)) + "]");
    return reply;
}

} // namespace kivboard
