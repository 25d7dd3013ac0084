#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <string_view>

#include "timing_lines.h"
#include "timing_trace.h"

namespace zol_tools
{
namespace
{

constexpr std::string_view wrong_header =
    "this is no timing log: its header must be \"time,...,delta since last event,\"";

// Takes the cell before the next comma from the head of a row; each cell ends with one.
std::string_view take_cell(std::string_view &row)
{
    const std::size_t size = std::min(row.find(','), row.size());
    const std::string_view cell = row.substr(0, size);
    row.remove_prefix(std::min(size + 1, row.size()));
    return cell;
}

std::size_t count_cells(std::string_view row)
{
    const auto ended = static_cast<std::size_t>(std::ranges::count(row, ','));
    return ended + (row.empty() || row.ends_with(',') ? 0 : 1);
}

// An event gives two rows, a pulse three: before, at and after it. Only the second has a time since the last event.
// So a pulse of a lane that is high shows in the number of rows.
class lane_reader
{
public:
    explicit lane_reader(lane &target) : lane_(&target) {}

    void add(std::int64_t time_us, bool high, bool is_event)
    {
        if (is_event) {
            end_event();
            event_us_ = time_us;
            is_on_high_ = high && high_;
            rows_after_ = 0;
        } else {
            ++rows_after_;
        }
        if (high != high_) {
            change(time_us, high);
        }
    }

    // The row after the event's own rows has been counted: that before the next event, or the last of the log.
    void end_event()
    {
        if (is_on_high_ && rows_after_ == 2) {
            lane_->marks.push_back({event_us_, 0, mark_kind::pulse});
        }
    }

private:
    // A level that takes no time is a pulse.
    void change(std::int64_t time_us, bool high)
    {
        std::vector<mark> &marks = lane_->marks;
        high_ = high;
        if (!high && !marks.empty() && marks.back().kind == mark_kind::high &&
            marks.back().time_us == time_us) {
            marks.back().kind = mark_kind::pulse;
        } else {
            marks.push_back({time_us, 0, high ? mark_kind::high : mark_kind::low});
        }
    }

    lane *lane_;
    bool high_ = false;
    bool is_on_high_ = false;
    int rows_after_ = 0;
    std::int64_t event_us_ = 0;
};

class log_reader
{
public:
    // Each returns "" or the mistake.
    std::string read_header(std::string_view header)
    {
        const auto columns = std::ranges::count(header, ',');
        if (columns < 2 || !header.ends_with(',') || take_cell(header) != "time") {
            return std::string(wrong_header);
        }
        for (auto i = columns - 2; i > 0; --i) {
            trace_.lanes.push_back({.label = std::string(take_cell(header)), .initial = false});
        }
        readers_ = std::vector<lane_reader>(trace_.lanes.begin(), trace_.lanes.end());
        return take_cell(header) == "delta since last event" ? "" : std::string(wrong_header);
    }

    std::string add_row(std::string_view row)
    {
        if (const std::size_t cells = count_cells(row); cells != readers_.size() + 2) {
            return "a row of " + std::to_string(cells) + " cells, but the header has " +
                   std::to_string(readers_.size() + 2);
        }
        const std::size_t delta = row.rfind(',', row.size() - 2);
        const bool is_event = delta + 2 < row.size();
        const std::string_view shown = take_cell(row);
        const std::optional<std::int64_t> time = parse_row_time(shown);
        if (!time) {
            return "\"" + std::string(shown) + "\" is no time";
        }
        trace_.first_us = std::min(trace_.first_us, *time);
        trace_.last_us = std::max(trace_.last_us, *time);
        trace_.last_row_us = *time;
        return add_cells(*time, is_event, row);
    }

    timing_trace finish()
    {
        for (lane_reader &reader : readers_) {
            reader.end_event();
        }
        return std::move(trace_);
    }

private:
    std::string add_cells(std::int64_t time_us, bool is_event, std::string_view cells)
    {
        for (std::size_t i = 0; i < readers_.size(); ++i) {
            if (cells.starts_with(',')) {
                cells.remove_prefix(1);
            } else if (const std::string_view cell = take_cell(cells);
                       !add_cell(i, time_us, is_event, cell)) {
                return "\"" + std::string(cell) + "\" is no level of lane " + trace_.lanes[i].label;
            }
        }
        const std::string_view delta = take_cell(cells);
        return delta.empty() || parse_row_time(delta) ? "" : "\"" + std::string(delta) + "\" is no time";
    }

    bool add_cell(std::size_t index, std::int64_t time_us, bool is_event, std::string_view cell)
    {
        std::size_t value = 0;
        const auto [end, error] = std::from_chars(cell.data(), cell.data() + cell.size(), value);
        if (error != std::errc() || end != cell.data() + cell.size() || value / 2 != index) {
            return false;
        }
        readers_[index].add(time_us, value % 2 != 0, is_event);
        return true;
    }

    timing_trace trace_;
    std::vector<lane_reader> readers_;
};

} // namespace

std::optional<timing_trace> read_timing_csv(const std::string &path, std::string &error)
{
    line_reader lines(path);
    std::string_view line;
    log_reader log;
    if (!lines.next(line)) {
        error = lines.failure().empty() ? path + ": is empty" : lines.failure();
        return std::nullopt;
    }
    std::string problem = log.read_header(line);
    while (problem.empty() && lines.next(line) && !lines.is_cut()) {
        problem = log.add_row(line);
    }
    if (!problem.empty() || !lines.failure().empty()) {
        error = problem.empty() ? lines.failure() : lines.mistake(problem);
        return std::nullopt;
    }
    if (lines.is_cut()) {
        std::fprintf(stderr, "zol_timing: %s\n", lines.mistake("the row is cut short and left out").c_str());
    }
    timing_trace trace = log.finish();
    trace.name = std::filesystem::path(path).stem();
    return trace;
}

} // namespace zol_tools
