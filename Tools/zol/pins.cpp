#include "pins.h"

#include <algorithm>

namespace zol_tool
{

std::optional<std::vector<int>> parse_pins(context &with, const words &names)
{
    std::vector<int> numbers;
    for (const std::string &name : names) {
        const auto number = parse_number(name, INT32_MAX);
        if (!number) {
            usage_error(with, "\"" + name + "\" is no pin");
            return std::nullopt;
        }
        if (std::ranges::count(numbers, static_cast<int>(*number)) > 0) {
            usage_error(with, "pin " + name + " is named twice");
            return std::nullopt;
        }
        numbers.push_back(static_cast<int>(*number));
    }
    if (numbers.empty()) {
        usage_error(with, "a pin is needed");
        return std::nullopt;
    }
    return numbers;
}

int with_pins(context &with, const std::vector<int> &numbers,
              const std::function<int(std::vector<zol::pin> &pins)> &work)
{
    const auto library = start(with);
    if (!library) {
        return not_started;
    }
    std::vector<zol::pin> pins;
    for (const int number : numbers) {
        auto pin = zol::pin::request(number, "zol");
        if (!went_well(with, pin, "pin " + std::to_string(number))) {
            return refused;
        }
        pins.push_back(std::move(*pin));
    }
    return work(pins);
}

} // namespace zol_tool
