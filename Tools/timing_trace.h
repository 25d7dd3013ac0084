// Timing logs and a board's journal in memory: lanes with marks, on one axis of time.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zol_tools
{

enum class mark_kind : std::uint8_t { low, high, pulse, count };

/// Small, because a log may have a million of them.
struct mark {
    std::int64_t time_us;
    std::uint32_t detail; // of a count: its value; of the others: 0, or the number of a text of the lane
    mark_kind kind;
};

struct lane {
    std::string label;
    bool is_count = false;
    std::optional<bool> initial = {}; // the level before the first mark, if it is known
    std::vector<mark> marks = {};     // in the order of time
    std::vector<std::string> texts = {};

    /// @return The text of a mark, or null.
    [[nodiscard]] const std::string *text_of(const mark &mark) const
    {
        const bool has_text = mark.kind != mark_kind::count && mark.detail > 0;
        return has_text ? &texts[mark.detail - 1] : nullptr;
    }
};

/// One log, or the journal.
struct timing_trace {
    std::string name;
    std::vector<lane> lanes;
    std::int64_t first_us = 0;
    std::int64_t last_us = 0;
    std::int64_t last_row_us = 0;              // in the order of the file, not of time
    std::optional<std::int64_t> start_us = {}; // the wall-clock time of its time 0, since 1970
};

struct timeline {
    std::vector<timing_trace> traces;
    std::int64_t first_us = 0;
    std::int64_t last_us = 0;
    std::optional<std::int64_t> start_us = {};

    [[nodiscard]] bool is_joined() const { return traces.size() > 1; }
    [[nodiscard]] std::size_t count_marks() const;
    void for_each_lane(const std::function<void(const timing_trace &trace, const lane &lane)> &visit) const;
};

/// Some 285 years. Up to here a double is exact to the microsecond, and no difference overflows.
constexpr std::int64_t most_seconds = 9'000'000'000;

/// "1.500000" in microseconds. The fraction always counts upwards: -1.900000 is 0.1 s before the start.
std::optional<std::int64_t> parse_row_time(std::string_view text);

/// A time that a user types: up to six decimals, and -0.1 is 0.1 s before the start.
std::optional<std::int64_t> parse_time(std::string_view text);

/// "1.500000"; the opposite of parse_time().
std::string show_time(std::int64_t time_us);

/// @param[out] error  "file:line: mistake", when there is no trace.
std::optional<timing_trace> read_timing_csv(const std::string &path, std::string &error);

/// @param path  The output of "kivboard journal --json"; "-" is the standard input.
std::optional<timing_trace> read_journal(const std::string &path, std::string &error);

/// Finds out when a log began: its last row has the time at which the file was modified last.
/// @return "" or the reason why that is not known.
std::string find_start(const std::string &path, timing_trace &trace);

/// The part of a timeline that is of interest.
struct time_window {
    std::optional<std::int64_t> from_us;
    std::optional<std::int64_t> to_us;
};

/// Puts traces on the axis of the first one. When there are several, all starts are known.
timeline join(std::vector<timing_trace> traces, const time_window &window);

} // namespace zol_tools
