// A timing log in memory: lanes and their levels over time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zol_tools
{

struct level_at {
    std::int64_t time_us;
    bool high;
};

/// Levels in the order of the file: an edge is two of them at one time, a pulse three.
struct lane {
    std::string label;
    std::vector<level_at> levels;
};

struct timing_trace {
    std::vector<lane> lanes;
    std::int64_t first_us = 0;
    std::int64_t last_us = 0;
};

/// @param[out] error  "file:line: mistake", when there is no trace.
std::optional<timing_trace> read_timing_csv(const std::string &path, std::string &error);

/// A self-contained picture: one lane below the other, a time axis, every pulse visible.
std::string to_svg(const timing_trace &trace, const std::string &title);

/// For waveform viewers; a unit of time is a microsecond. A pulse is high for one.
std::string to_vcd(const timing_trace &trace);

} // namespace zol_tools
