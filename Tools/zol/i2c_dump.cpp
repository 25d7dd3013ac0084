// Tables of registers, and their differences.

#include <algorithm>
#include <fstream>
#include <map>

#include "i2c.h"

namespace zol_tool
{

namespace
{

constexpr unsigned row_length = 16;

using dump_values =
    std::map<std::uint16_t, std::optional<std::uint8_t>>; // nothing: the register could not be read

// The registers of each transfer: one, or with --block the consecutive ones of a row.
std::vector<register_values> transfers_of(const std::vector<std::uint16_t> &wanted, bool is_block)
{
    std::vector<register_values> transfers;
    for (const std::uint16_t reg : wanted) {
        const bool continues = is_block && !transfers.empty() && reg % row_length != 0 &&
                               transfers.back().reg + transfers.back().values.size() == reg;
        if (!continues) {
            transfers.push_back({reg, {}});
        }
        transfers.back().values.push_back(0);
    }
    return transfers;
}

// A dump, and the reason why a register could not be read.
struct dump {
    dump_values values;
    std::string problem;
};

dump read_dump(registers &device, const std::vector<std::uint16_t> &wanted, bool is_block)
{
    dump made;
    for (auto &[first, values] : transfers_of(wanted, is_block)) {
        const auto read = device.read(first, values);
        if (!read && made.problem.empty()) {
            made.problem = device.describe_failure(first, read);
        }
        std::uint16_t reg = first;
        for (const std::uint8_t value : values) {
            made.values[reg++] = read ? std::optional(value) : std::nullopt;
        }
    }
    return made;
}

std::string cell(std::optional<std::uint8_t> value)
{
    return value ? hex(*value).substr(2) : "XX";
}

char character(std::optional<std::uint8_t> value)
{
    return !value ? '?' : *value >= 0x20 && *value < 0x7f ? static_cast<char>(*value) : '.';
}

std::string row_text(const dump_values &values, unsigned first, int digits)
{
    std::string cells;
    std::string characters;
    for (unsigned reg = first; reg < first + row_length; ++reg) {
        const auto at = values.find(static_cast<std::uint16_t>(reg));
        cells += at != values.end() ? " " + cell(at->second) : "   ";
        characters += at != values.end() ? character(at->second) : ' ';
    }
    return hex(first, digits).substr(2) + ":" + cells + "   " + characters;
}

void print_table(context &with, const dump_values &values)
{
    const int digits = with.has("--16") ? 4 : 2;
    std::string head(static_cast<std::size_t>(digits) + 1, ' ');
    for (unsigned column = 0; column < row_length; ++column) {
        head += "  " + hex(column, 1).substr(2);
    }
    with.out.line(head);
    std::optional<unsigned> printed;
    for (const auto &[reg, value] : values) {
        const unsigned row = reg / row_length;
        if (printed != row) {
            with.out.line(row_text(values, row * row_length, digits));
            printed = row;
        }
    }
}

void print_dump(context &with, const device_address &at, const dump_values &values)
{
    if (!with.json) {
        print_table(with, values);
        return;
    }
    std::vector<register_values> read;
    read.reserve(values.size());
    for (const auto &[reg, value] : values) {
        read.push_back({reg, value ? std::vector{*value} : std::vector<std::uint8_t>{}});
    }
    with.out.answer(as_json(at, read));
}

// Reads a line of a table; a line that is none adds nothing.
void read_row(const std::string &line, dump_values &values)
{
    const std::size_t mark = line.find(':');
    const auto first =
        mark != std::string::npos ? parse_number("0x" + line.substr(0, mark), 0xfff0) : std::nullopt;
    std::size_t at = mark + 2;
    for (unsigned column = 0; first && column < row_length; ++column, at += 3) {
        const auto value = at < line.size() ? parse_number("0x" + line.substr(at, 2), 0xff) : std::nullopt;
        if (value) {
            values[static_cast<std::uint16_t>(*first + column)] = static_cast<std::uint8_t>(*value);
        }
    }
}

// An earlier dump. @return Nothing after a complaint.
std::optional<dump_values> read_file(context &with)
{
    const std::string path = with.value("--compare");
    dump_values values;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        read_row(line, values);
    }
    if (values.empty()) {
        usage_error(with, path + (file.is_open() ? " is no dump in text; make it without --json"
                                                 : " cannot be read"));
        return std::nullopt;
    }
    return values;
}

struct difference {
    std::uint16_t reg;
    std::optional<std::uint8_t> before;
    std::optional<std::uint8_t> now;
};

std::vector<difference> differences(const dump_values &before, const dump_values &now)
{
    std::vector<difference> found;
    for (const auto &[reg, value] : now) {
        if (before.at(reg) != value) {
            found.push_back({reg, before.at(reg), value});
        }
    }
    return found;
}

json as_json(const device_address &at, const std::vector<difference> &found)
{
    std::vector<json> entries;
    entries.reserve(found.size());
    for (const auto &[reg, before, now] : found) {
        entries.push_back(
            json::object({{"register", reg}, {"before", *before}, {"now", now ? json(*now) : json::null()}}));
    }
    return json::object({{"bus", at.bus}, {"device", at.device}, {"differences", entries}});
}

void print_differences(context &with, const device_address &at, registers &device,
                       const std::vector<difference> &found)
{
    if (with.json) {
        with.out.answer(as_json(at, found));
        return;
    }
    for (const auto &[reg, before, now] : found) {
        with.out.line(device.name(reg) + ": " + with.out.coloured(colour::red, cell(before)) + " -> " +
                      with.out.coloured(colour::green, cell(now)));
    }
}

// The registers to read: those of --register, or those of the earlier dump. @return Nothing after a complaint.
std::optional<std::vector<std::uint16_t>> registers_to_dump(context &with, const dump_values *before)
{
    auto wanted = parse_registers(with, before != nullptr && with.has("--16") ? "0-0xffff" : "0-0xff");
    if (wanted && before != nullptr) {
        std::erase_if(*wanted, [before](std::uint16_t reg) { return !before->contains(reg); });
        if (wanted->empty()) {
            usage_error(with, with.value("--compare") + " has none of the registers");
            return std::nullopt;
        }
    }
    return wanted;
}

int dump_registers(context &with, const device_address &at, const std::vector<std::uint16_t> &wanted,
                   const dump_values *before)
{
    auto device = registers::open(with, at);
    if (!device) {
        return refused;
    }
    const dump read = read_dump(*device, wanted, with.has("--block"));
    const auto has_value = [](const auto &entry) { return entry.second.has_value(); };
    bool is_done = read.problem.empty();
    if (before != nullptr) {
        const auto found = differences(*before, read.values);
        print_differences(with, at, *device, found);
        is_done = is_done && found.empty();
    } else if (std::ranges::any_of(read.values, has_value)) {
        print_dump(with, at, read.values);
    }
    if (!read.problem.empty()) {
        with.out.error(read.problem);
    }
    return is_done ? done : refused;
}

} // namespace

int i2c_dump(context &with)
{
    const auto at = parse_address(with);
    if (!at) {
        return wrong_usage;
    }
    const bool compares = with.has("--compare");
    const auto before = compares ? read_file(with) : std::nullopt;
    if (compares && !before) {
        return wrong_usage;
    }
    const dump_values *const earlier = before ? &*before : nullptr;
    const auto wanted = registers_to_dump(with, earlier);
    if (!wanted) {
        return wrong_usage;
    }
    const auto library = start(with);
    return library ? dump_registers(with, *at, *wanted, earlier) : not_started;
}

} // namespace zol_tool
