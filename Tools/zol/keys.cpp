#include "keys.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <numeric>
#include <vector>

namespace zol_tool
{
namespace
{

constexpr std::int32_t any = std::numeric_limits<std::int32_t>::max();

constexpr std::array<known_key, 12> table = {{
    {"configName", key_kind::text, nullptr, "the name of this configuration"},
    {"debugLevel", key_kind::number, nullptr, "the log level: 1 errors, 2 progress, 3 detail, 4 fine detail",
     0, 10},
    {"systemTokensPath", key_kind::tokens, nullptr, "the directory of the tokens"},
    {"i2c_buses_num", key_kind::number, nullptr, "the number of the last I2C bus", 0, 9},
    {"i2c_bus_#_dev", key_kind::bus_node, "/dev/i2c-", "the node of a bus"},
    {"i2c_bus_#_debug", key_kind::number, "0", "1 logs every transfer on a bus", 0, 1},
    {"gpio_chips_num", key_kind::number, "0", "the number of GPIO chips", 0, 16},
    {"gpio_chip_#_dev", key_kind::chip, "", "the node or the label of a chip"},
    {"gpio_chip_#_first", key_kind::number, "0", "the pin number of the chip's line 0", 0, 65'535},
    {"gpio_#_bias", key_kind::bias, "", "pull-up, pull-down or disabled"},
    {"gpio_#_active_low", key_kind::number, "0", "1 inverts a pin", 0, 1},
    {"gpio_#_debounce_us", key_kind::number, "0", "how long a new level lasts before it counts", 0, any},
}};

// "gpio_17_bias" has the form "gpio_#_bias" and the number "17".
struct numbered_name {
    std::string form;
    std::string_view number; // "": none
};

// A number comes behind the first underscore: the 2 of "i2c" is none.
numbered_name split(std::string_view name)
{
    constexpr std::string_view digits = "0123456789";
    const std::size_t from = name.find_first_of(digits, std::min(name.find('_'), name.size()));
    if (from == std::string_view::npos) {
        return {std::string(name), {}};
    }
    const std::size_t to = std::min(name.find_first_not_of(digits, from), name.size());
    return {std::string(name.substr(0, from)) + "#" + std::string(name.substr(to)),
            name.substr(from, to - from)};
}

// The library writes numbers without leading zeros, so it looks for no others.
bool is_plain(std::string_view number) noexcept
{
    return number.size() == 1 || (number.size() < 10 && number.front() != '0');
}

int to_int(std::string_view number) noexcept
{
    int value = -1;
    static_cast<void>(std::from_chars(number.data(), number.data() + number.size(), value));
    return value;
}

// Insertions, deletions and replacements that turn one text into the other. One row of the usual table at a time.
std::size_t edit_distance(std::string_view a, std::string_view b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

} // namespace

std::span<const known_key> known_keys() noexcept
{
    return table;
}

const known_key &key_of(std::string_view pattern) noexcept
{
    return *std::find_if(table.begin(), table.end(),
                         [pattern](const known_key &each) { return each.pattern == pattern; });
}

std::string known_key::name(std::string_view number) const
{
    std::string made(pattern);
    if (const std::size_t at = made.find('#'); at != std::string::npos) {
        made.replace(at, 1, number);
    }
    return made;
}

key_match match_key(std::string_view name)
{
    const numbered_name wanted = split(name);
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&](const known_key &each) { return each.pattern == wanted.form; });
    if (found == table.end() || (!wanted.number.empty() && !is_plain(wanted.number))) {
        return {};
    }
    return {&*found, to_int(wanted.number)};
}

std::string nearest_key(std::string_view name)
{
    const numbered_name wanted = split(name);
    const known_key *nearest = nullptr;
    std::size_t least = std::numeric_limits<std::size_t>::max();
    for (const known_key &each : table) {
        const std::size_t distance = edit_distance(wanted.form, each.pattern);
        if (distance <= each.pattern.size() / 3 && distance < least) {
            nearest = &each;
            least = distance;
        }
    }
    if (nearest == nullptr) {
        return "";
    }
    const int number = to_int(wanted.number);
    return number < 0 ? nearest->name() : nearest->name(std::to_string(number));
}

} // namespace zol_tool
