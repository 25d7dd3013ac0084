// Levels of pins.

#include <algorithm>

#include "duration.h"
#include "interruption.h"
#include "pins.h"

namespace zol_tool
{

namespace
{

constexpr std::uint32_t most_pulses = 1'000'000'000;

struct pin_level {
    int pin;
    int level;
};

bool went_well_at(context &with, const auto &result, const zol::pin &pin)
{
    return went_well(with, result, "pin " + std::to_string(pin.number()));
}

json as_json(const std::vector<pin_level> &levels)
{
    std::vector<json> pins;
    pins.reserve(levels.size());
    for (const auto &[pin, level] : levels) {
        pins.push_back(json::object({{"pin", pin}, {"level", level}}));
    }
    return json::object({{"pins", pins}});
}

void print(context &with, const std::vector<pin_level> &levels)
{
    if (with.json) {
        with.out.answer(as_json(levels));
    } else if (levels.size() == 1) {
        with.out.line(std::to_string(levels.front().level));
    } else {
        for (const auto &[pin, level] : levels) {
            with.out.line(std::to_string(pin) + "=" + std::to_string(level));
        }
    }
}

// Takes "5=1" apart.
// @return Nothing after a complaint.
std::optional<std::vector<int>> take_levels(context &with, words &names)
{
    std::vector<int> levels;
    for (std::string &name : names) {
        const std::size_t mark = name.find('=');
        const auto level = mark != std::string::npos ? parse_number(name.substr(mark + 1), 1) : std::nullopt;
        if (!level) {
            usage_error(with, "\"" + name + "\" is not PIN=0 or PIN=1");
            return std::nullopt;
        }
        levels.push_back(static_cast<int>(*level));
        name.resize(mark);
    }
    return levels;
}

bool drive(context &with, std::vector<zol::pin> &pins, int level)
{
    return std::ranges::all_of(pins,
                               [&](zol::pin &pin) { return went_well_at(with, pin.set_level(level), pin); });
}

// Ends a pulse on all pins, also when one of them fails.
bool end_pulse(context &with, std::vector<zol::pin> &pins, int level)
{
    return std::ranges::count_if(
               pins, [&](zol::pin &pin) { return !went_well_at(with, pin.set_level(level), pin); }) == 0;
}

struct pulses {
    std::chrono::nanoseconds length;
    std::uint32_t count;
    int level;
};

// A pulse and its pause end at their times from the start on, so delays do not add up. A signal ends the last pulse early.
int drive_pulses(context &with, std::vector<zol::pin> &pins, const pulses &wanted, interruption &interrupted)
{
    steady_time end = std::chrono::steady_clock::now();
    for (std::uint32_t pulse = 0; pulse < wanted.count && interrupted.signal() == 0; ++pulse) {
        if (!drive(with, pins, wanted.level)) {
            for (zol::pin &pin : pins) {
                static_cast<void>(pin.set_level(1 - wanted.level)); // the failure has been reported
            }
            return refused;
        }
        interrupted.comes_before(end += wanted.length);
        if (!end_pulse(with, pins, 1 - wanted.level)) {
            return refused;
        }
        end += wanted.length;
        if (pulse + 1 < wanted.count) {
            interrupted.comes_before(end);
        }
    }
    return interrupted.signal() != 0 ? status_of_signal(interrupted.signal()) : done;
}

std::optional<pulses> parse_pulses(context &with)
{
    const auto length = kivboard::parse_duration(with.value("--ms", "10") + "ms");
    if (!length) {
        usage_error(with, "--ms " + with.value("--ms") + " is no number of milliseconds, as 20 or 0.5");
        return std::nullopt;
    }
    const auto count = parse_number(with.value("--count", "1"), most_pulses);
    if (!count) {
        usage_error(with, "--count " + with.value("--count") + " is no number of pulses");
        return std::nullopt;
    }
    return pulses{*length, *count, with.has("--low") ? 0 : 1};
}

int read_levels(context &with, const std::vector<zol::pin> &pins)
{
    std::vector<pin_level> levels;
    for (const zol::pin &pin : pins) {
        const auto level = pin.level();
        if (!went_well_at(with, level, pin)) {
            return refused;
        }
        levels.push_back({pin.number(), *level});
    }
    print(with, levels);
    return done;
}

int drive_levels(context &with, std::vector<zol::pin> &pins, const std::vector<int> &levels)
{
    std::vector<pin_level> driven;
    for (zol::pin &pin : pins) {
        const int level = levels[driven.size()];
        if (!went_well_at(with, pin.set_level(level), pin)) {
            return refused;
        }
        driven.push_back({pin.number(), level});
    }
    if (with.json) {
        print(with, driven);
    }
    return done;
}

json as_json(const std::vector<int> &numbers, const pulses &driven)
{
    return json::object({{"pins", std::vector<json>(numbers.begin(), numbers.end())},
                         {"level", driven.level},
                         {"count", driven.count},
                         {"ms", std::chrono::duration<double, std::milli>(driven.length).count()}});
}

} // namespace

int gpio_get(context &with)
{
    const auto numbers = parse_pins(with, with.operands);
    return numbers ? with_pins(with, *numbers, [&](const auto &pins) { return read_levels(with, pins); })
                   : wrong_usage;
}

int gpio_set(context &with)
{
    const auto levels = take_levels(with, with.operands);
    const auto numbers = levels ? parse_pins(with, with.operands) : std::nullopt;
    return numbers ? with_pins(with, *numbers, [&](auto &pins) { return drive_levels(with, pins, *levels); })
                   : wrong_usage;
}

int gpio_pulse(context &with)
{
    const auto numbers = parse_pins(with, with.operands);
    const auto wanted = numbers ? parse_pulses(with) : std::nullopt;
    if (!wanted) {
        return wrong_usage;
    }
    interruption interrupted;
    const int status =
        with_pins(with, *numbers, [&](auto &pins) { return drive_pulses(with, pins, *wanted, interrupted); });
    if (status == done && with.json) {
        with.out.answer(as_json(*numbers, *wanted));
    }
    return status;
}

} // namespace zol_tool
