#include <algorithm>
#include <charconv>
#include <fstream>
#include <string_view>

#include "timing_trace.h"

namespace zol_tools
{
namespace
{

std::vector<std::string> split(const std::string &line)
{
    std::vector<std::string> cells;
    std::size_t begin = 0;
    for (std::size_t comma = line.find(','); comma != std::string::npos; comma = line.find(',', begin)) {
        cells.push_back(line.substr(begin, comma - begin));
        begin = comma + 1;
    }
    return cells; // a row ends with a comma
}

std::optional<std::int64_t> parse_integer(std::string_view text)
{
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return !text.empty() && error == std::errc() && end == text.data() + text.size() ? std::optional(value)
                                                                                     : std::nullopt;
}

// Some 285 years. Up to here a double is exact to the microsecond, and no difference overflows.
constexpr std::int64_t most_seconds = 9'000'000'000;

// "1.500000" in microseconds. The fraction always counts upwards: -1.900000 is 0.1 s before the start.
std::optional<std::int64_t> parse_time(std::string_view text)
{
    const std::size_t point = text.find('.');
    if (point == std::string_view::npos || text.size() - point != 7 || text[point + 1] == '-') {
        return std::nullopt;
    }
    const std::optional<std::int64_t> seconds = parse_integer(text.substr(0, point));
    const std::optional<std::int64_t> fraction = parse_integer(text.substr(point + 1));
    if (!seconds || !fraction || *seconds > most_seconds || *seconds < -most_seconds) {
        return std::nullopt;
    }
    return *seconds * 1'000'000 + *fraction;
}

bool add_cell(lane &lane, std::size_t index, std::int64_t time_us, const std::string &cell)
{
    const std::optional<std::int64_t> value = parse_integer(cell);
    if (!value || (*value != static_cast<std::int64_t>(2 * index) &&
                   *value != static_cast<std::int64_t>(2 * index + 1))) {
        return false;
    }
    lane.levels.push_back({time_us, *value % 2 != 0});
    return true;
}

// @return "" or the mistake.
std::string add_row(timing_trace &trace, const std::vector<std::string> &cells)
{
    if (cells.size() != trace.lanes.size() + 2) {
        return "a row of " + std::to_string(cells.size()) + " cells, but the header has " +
               std::to_string(trace.lanes.size() + 2);
    }
    const std::optional<std::int64_t> time = parse_time(cells[0]);
    if (!time) {
        return "\"" + cells[0] + "\" is no time";
    }
    trace.first_us = std::min(trace.first_us, *time);
    trace.last_us = std::max(trace.last_us, *time);
    for (std::size_t i = 0; i < trace.lanes.size(); ++i) {
        if (!cells[i + 1].empty() && !add_cell(trace.lanes[i], i, *time, cells[i + 1])) {
            return "\"" + cells[i + 1] + "\" is no level of lane " + trace.lanes[i].label;
        }
    }
    return "";
}

bool read_header(const std::string &line, timing_trace &trace)
{
    const std::vector<std::string> titles = split(line);
    if (titles.size() < 2 || titles.front() != "time" || titles.back() != "delta since last event") {
        return false;
    }
    for (std::size_t i = 1; i + 1 < titles.size(); ++i) {
        trace.lanes.push_back({titles[i], {}});
    }
    return true;
}

} // namespace

std::optional<timing_trace> read_timing_csv(const std::string &path, std::string &error)
{
    std::ifstream file(path);
    std::string line;
    timing_trace trace;
    if (!std::getline(file, line)) {
        error = path + ": cannot be read, or is empty";
        return std::nullopt;
    }
    if (!read_header(line, trace)) {
        error = path + ":1: this is no timing log: its header must be \"time,...,delta since last event,\"";
        return std::nullopt;
    }
    for (int number = 2; std::getline(file, line); ++number) {
        if (const std::string problem = add_row(trace, split(line)); !problem.empty()) {
            error = path + ":" + std::to_string(number) + ": " + problem;
            return std::nullopt;
        }
    }
    return trace;
}

} // namespace zol_tools
