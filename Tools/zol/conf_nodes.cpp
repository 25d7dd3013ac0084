// The nodes and directories that a configuration names: each is opened as the library does, and nothing is changed.

#include <fcntl.h>
#include <grp.h>
#include <linux/gpio.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>

#include "common/unique_fd.h"
#include "conf_check.h"
#include "zol/kiv_i2c.h"

namespace zol_tool
{
namespace
{

namespace fs = std::filesystem;

constexpr std::size_t longest_token_path = 63;
constexpr int most_chip_nodes = 256; // where the library looks for a label
constexpr char board_pins[] = "/sys/user_hw/pins/gpios";

kiv::unique_fd open_node(const std::string &path)
{
    return kiv::unique_fd(
        static_cast<int>(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK))));
}

std::string failure(const std::string &path, int error)
{
    return path + ": " + std::strerror(error);
}

constexpr char bus_advice[] = "sudo modprobe i2c-dev; ls /dev/i2c-* lists the buses";
constexpr char chip_advice[] = "gpiodetect lists the chips and their labels";

// Nodes usually belong to a group of users that may open them.
std::string permission_advice(const std::string &path)
{
    struct stat status = {};
    const bool is_known = stat(path.c_str(), &status) == 0;
    const ::group *const owner =
        is_known && (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 ? getgrgid(status.st_gid) : nullptr;
    return owner != nullptr ? std::string("sudo adduser $USER ") + owner->gr_name + ", then log in again"
                            : "run the application as root";
}

std::string remedy_for(int error, const std::string &path, const char *if_missing)
{
    const bool is_missing = error == ENOENT || error == ENODEV || error == ENXIO;
    const bool is_forbidden = error == EACCES || error == EPERM;
    return is_missing ? if_missing : is_forbidden ? permission_advice(path) : "";
}

std::set<fs::path> entries_of(const fs::path &directory, std::error_code &error)
{
    std::set<fs::path> entries;
    for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
        entries.insert(at->path());
    }
    return entries;
}

bool is_too_long_for_a_token(const fs::path &path)
{
    return path.string().size() > longest_token_path;
}

void check_token(conf_report &report, const std::string &key, const fs::path &path)
{
    const std::string name = path.filename();
    if (is_too_long_for_a_token(path)) {
        report.add(weight::warning, key,
                   "the path of the token " + name + " has " + std::to_string(path.string().size()) +
                       " characters, at most 63 can be read",
                   "give one of them a shorter name");
    } else if (access(path.c_str(), R_OK) != 0) {
        report.add(weight::warning, key, "the token " + name + " cannot be read: " + std::strerror(errno),
                   "chmod a+r " + path.string());
    }
}

void report_directory(conf_report &report, const std::string &key, const std::string &directory, int error)
{
    std::error_code ignored;
    const std::string place =
        directory.starts_with('/') ? "" : " (in " + fs::current_path(ignored).string() + ")";
    report.add(weight::error, key, failure(directory, error) + place,
               error == ENOENT   ? "mkdir -p " + directory
               : error == EACCES ? "chmod a+rx " + directory
                                 : "name a directory");
}

// The path of a bus's node. None: the library refuses it.
std::optional<std::string> bus_path(std::string dev, int bus)
{
    const std::size_t at = dev.find('%');
    if (at == std::string::npos) {
        return dev;
    }
    const bool is_plain = at + 1 < dev.size() && std::strchr("diuxXo", dev[at + 1]) != nullptr;
    if (!is_plain || dev.find('%', at + 1) != std::string::npos) {
        return std::nullopt;
    }
    return dev.replace(at, 2, std::to_string(bus));
}

void check_bus(conf_report &report, const std::string &key, const std::string &dev, int bus)
{
    const std::optional<std::string> path = bus_path(dev, bus);
    if (!path) {
        report.add(weight::error, key, "\"" + dev + "\" is no path", "only one %d may be in it");
        return;
    }
    const kiv::unique_fd node = open_node(*path);
    const int error = errno;
    unsigned long functions = 0;
    if (!node.is_open()) {
        report.add(weight::error, key, failure(*path, error), remedy_for(error, *path, bus_advice));
    } else if (ioctl(node.get(), I2C_FUNCS, &functions) != 0) {
        report.add(weight::error, key, *path + " is no I2C bus", bus_advice);
    }
}

// The library's rule: a number N sets up the buses 0 to N, but 0 none, and a negative one all.
int buses_of(std::int32_t configured)
{
    return configured == 0                       ? 0
           : configured < 0                      ? KIV_I2C_MAX_BUSES
           : configured >= KIV_I2C_MAX_BUSES - 1 ? KIV_I2C_MAX_BUSES
                                                 : configured + 1;
}

void report_buses_without_node(conf_report &report, const std::string &buses)
{
    if (!buses.empty()) {
        report.add(weight::note, "i2c_buses_num", "these buses have no i2c_bus_N_dev:" + buses,
                   "i2c_buses_num is the number of the last bus");
    }
}

// Calls visit(key, element, number) for each element that is a key whose pattern begins so.
template <typename Visit>
void for_each_key(const conf_report &report, std::string_view beginning, Visit visit)
{
    for (const conf_element &element : report.file().elements) {
        const key_match match = match_key(element.name);
        if (match.key != nullptr && match.key->pattern.starts_with(beginning) &&
            report.file().find(element.name) == &element) {
            visit(element, match.number);
        }
    }
}

void report_other_buses(conf_report &report, int buses)
{
    for_each_key(report, "i2c_bus_#", [&](const conf_element &element, int bus) {
        if (bus >= KIV_I2C_MAX_BUSES) {
            report.add(weight::warning, element.name, "there are at most 10 buses, 0 to 9");
        } else if (bus >= buses) {
            report.add(weight::warning, element.name, "bus " + std::to_string(bus) + " is not set up",
                       "set i2c_buses_num to " + std::to_string(std::max(bus, 1)) +
                           ", the number of the last bus");
        }
    });
}

// The pins of a chip.
struct pin_range {
    int chip;
    int first;
    int end;

    [[nodiscard]] bool overlaps(const pin_range &other) const noexcept
    {
        return first < other.end && other.first < end;
    }
    [[nodiscard]] std::string text() const
    {
        return std::to_string(first) + " to " + std::to_string(end - 1);
    }
};

struct chip_node {
    int error = 0;
    gpiochip_info info = {};
};

chip_node open_chip(const std::string &path)
{
    chip_node chip;
    const kiv::unique_fd node = open_node(path);
    if (!node.is_open() || ioctl(node.get(), GPIO_GET_CHIPINFO_IOCTL, &chip.info) != 0) {
        chip.error = errno;
    }
    return chip;
}

// The first node with this label counts. Without one, the error is that of a node which does not open.
chip_node open_labelled(const std::string &label)
{
    chip_node none;
    none.error = ENODEV;
    for (int i = 0; i < most_chip_nodes; ++i) {
        chip_node chip = open_chip("/dev/gpiochip" + std::to_string(i));
        if (chip.error == 0 && label == chip.info.label) {
            return chip;
        }
        none.error = chip.error == 0 || chip.error == ENOENT ? none.error : chip.error;
    }
    return none;
}

std::string reason_of(const std::string &dev, int error)
{
    return error == ENODEV   ? "no chip has the label \"" + dev + "\""
           : error == ENOTTY ? dev + " is no GPIO chip"
                             : failure(dev, error);
}

// @return None, after a finding, when the library cannot use the chip.
std::optional<pin_range> check_chip(conf_report &report, int number)
{
    const std::string text = std::to_string(number);
    const std::string key = key_of("gpio_chip_#_dev").name(text);
    const known_key &first_key = key_of("gpio_chip_#_first");
    const std::optional<std::string> dev = report.text(key_of("gpio_chip_#_dev"), key);
    const std::optional<std::int32_t> first = report.number(first_key, first_key.name(text));
    if (report.file().find(key) == nullptr) {
        report.add(weight::error, "gpio_chips_num", key + " is missing",
                   "it is the number of chips, from chip 0");
        return std::nullopt;
    }
    if (!dev) { // it has been reported
        return std::nullopt;
    }
    const chip_node chip = dev->find('/') != std::string::npos ? open_chip(*dev) : open_labelled(*dev);
    if (chip.error != 0) {
        report.add(weight::error, key, reason_of(*dev, chip.error),
                   remedy_for(chip.error, *dev, chip_advice));
        return std::nullopt;
    }
    return first ? std::optional(pin_range{number, *first, *first + static_cast<int>(chip.info.lines)})
                 : std::nullopt;
}

// Takes a chip into the list unless another one has its pins.
bool take_chip(conf_report &report, std::vector<pin_range> &chips, const pin_range &chip)
{
    const auto other =
        std::ranges::find_if(chips, [&](const pin_range &each) { return each.overlaps(chip); });
    if (other != chips.end()) {
        report.add(weight::error, key_of("gpio_chip_#_first").name(std::to_string(chip.chip)),
                   "the pins " + chip.text() + " overlap " + other->text() + " of chip " +
                       std::to_string(other->chip),
                   "choose another first pin");
        return false;
    }
    chips.push_back(chip);
    return true;
}

void report_other_chips(conf_report &report, int configured)
{
    for_each_key(report, "gpio_chip_#", [&](const conf_element &element, int chip) {
        if (chip >= configured) {
            report.add(weight::warning, element.name, "chip " + std::to_string(chip) + " is not set up",
                       "set gpio_chips_num to " + std::to_string(chip + 1) + ", the number of chips");
        }
    });
}

void report_other_pins(conf_report &report, const std::vector<pin_range> &chips)
{
    for_each_key(report, "gpio_#", [&](const conf_element &element, int pin) {
        const pin_range wanted = {0, pin, pin + 1};
        if (std::ranges::none_of(chips, [&](const pin_range &each) { return each.overlaps(wanted); })) {
            report.add(weight::warning, element.name,
                       "pin " + std::to_string(pin) + " is no line of a chip of this file",
                       "such keys work on the lines of GPIO chips only");
        }
    });
}

} // namespace

int numbers_set_up(const conf_report &report, const known_key &key)
{
    if (key.pattern.starts_with("i2c_bus_#")) {
        return buses_of(report.number(key_of("i2c_buses_num"), "i2c_buses_num").value_or(0));
    }
    return key.pattern.starts_with("gpio_chip_#")
               ? report.number(key_of("gpio_chips_num"), "gpio_chips_num").value_or(0)
               : 0;
}

void check_tokens(conf_report &report)
{
    const known_key &key = key_of("systemTokensPath");
    const std::optional<std::string> directory = report.text(key, key.name());
    if (!directory) {
        return;
    }
    std::error_code error;
    const std::set<fs::path> tokens = entries_of(directory->empty() ? "/" : *directory, error);
    if (error) {
        report_directory(report, key.name(), *directory, error.value());
    }
    for (const fs::path &token : tokens) {
        check_token(report, key.name(), token);
    }
}

void check_buses(conf_report &report)
{
    const known_key &key = key_of("i2c_bus_#_dev");
    const int buses = numbers_set_up(report, key);
    std::string without_node;
    for (int bus = 0; bus < buses; ++bus) {
        const std::string name = key.name(std::to_string(bus));
        const std::optional<std::string> dev = report.text(key, name);
        if (report.file().find(name) == nullptr) {
            without_node += " " + std::to_string(bus);
        } else if (dev) {
            check_bus(report, name, *dev, bus);
        }
    }
    report_buses_without_node(report, without_node);
    if (report.number(key_of("i2c_buses_num"), "i2c_buses_num")) {
        report_other_buses(report, buses);
    }
}

void check_chips(conf_report &report)
{
    const auto configured = report.number(key_of("gpio_chips_num"), "gpio_chips_num");
    const int number = configured.value_or(0);
    std::vector<pin_range> chips;
    int usable = 0;
    for (int i = 0; i < number; ++i) {
        const std::optional<pin_range> chip = check_chip(report, i);
        usable += chip && take_chip(report, chips, *chip) ? 1 : 0;
    }
    if (!configured) { // it has been reported
        return;
    }
    report_other_chips(report, number);
    if (usable == number) {
        report_other_pins(report, chips);
    }
    if (number == 0 && access(board_pins, F_OK) != 0) {
        report.add(weight::note, "gpio_chips_num",
                   std::string("there are no pins: no chip is set up, and ") + board_pins + " is missing",
                   chip_advice);
    }
}

} // namespace zol_tool
