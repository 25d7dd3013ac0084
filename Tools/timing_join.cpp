// The common axis of several logs and a journal.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>

#include "timing_trace.h"

namespace zol_tools
{
namespace
{

constexpr std::int64_t us_per_second = 1'000'000;
constexpr std::size_t decimals = 6;
constexpr long coarsest_ns = 10'000'000; // the unit of time of file systems for memory cards

std::optional<std::int64_t> parse_digits(std::string_view text)
{
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool is_whole = error == std::errc() && end == text.data() + text.size();
    return is_whole && !text.starts_with('-') ? std::optional(value) : std::nullopt;
}

struct seconds_and_fraction {
    bool is_negative;
    std::int64_t seconds;
    std::int64_t fraction_us;
};

std::optional<seconds_and_fraction> split_time(std::string_view text)
{
    const bool is_negative = text.starts_with('-');
    text.remove_prefix(is_negative ? 1 : 0);
    const std::size_t point = std::min(text.find('.'), text.size());
    std::string fraction(text.substr(std::min(point + 1, text.size())));
    if (fraction.size() > decimals || text.ends_with('.')) {
        return std::nullopt;
    }
    fraction.resize(decimals, '0');
    const std::optional<std::int64_t> seconds = parse_digits(text.substr(0, point));
    const std::optional<std::int64_t> fraction_us = parse_digits(fraction);
    if (!seconds || !fraction_us || *seconds > most_seconds) {
        return std::nullopt;
    }
    return seconds_and_fraction{is_negative, *seconds, *fraction_us};
}

void sort_marks(std::vector<mark> &marks)
{
    constexpr auto by_time = [](const mark &a, const mark &b) { return a.time_us < b.time_us; };
    if (!std::is_sorted(marks.begin(), marks.end(), by_time)) { // threads race, and clocks are set
        std::stable_sort(marks.begin(), marks.end(), by_time);
    }
}

// Removes the marks before a time. The last level or count is that at the time.
void cut_head(lane &lane, std::int64_t from_us)
{
    const auto first = std::find_if(lane.marks.begin(), lane.marks.end(),
                                    [from_us](const mark &each) { return each.time_us >= from_us; });
    std::optional<mark> count;
    for (auto each = lane.marks.begin(); each != first; ++each) {
        if (each->kind == mark_kind::count) {
            count = mark{from_us, each->detail, mark_kind::count};
        } else if (each->kind != mark_kind::pulse) {
            lane.initial = each->kind == mark_kind::high;
        }
    }
    lane.marks.erase(lane.marks.begin(), first);
    if (count) {
        lane.marks.insert(lane.marks.begin(), *count);
    }
}

void cut_tail(lane &lane, std::int64_t to_us)
{
    const auto end = std::find_if(lane.marks.begin(), lane.marks.end(),
                                  [to_us](const mark &each) { return each.time_us > to_us; });
    lane.marks.erase(end, lane.marks.end());
}

void shift(timing_trace &trace, std::int64_t by_us)
{
    trace.first_us += by_us;
    trace.last_us += by_us;
    for (lane &lane : trace.lanes) {
        for (mark &mark : lane.marks) {
            mark.time_us += by_us;
        }
    }
}

void cut(timing_trace &trace, const time_window &window)
{
    using limits = std::numeric_limits<std::int64_t>;
    const std::int64_t from_us = window.from_us.value_or(limits::min());
    const std::int64_t to_us = window.to_us.value_or(limits::max());
    trace.first_us = std::clamp(trace.first_us, from_us, to_us);
    trace.last_us = std::clamp(trace.last_us, from_us, to_us);
    for (lane &lane : trace.lanes) {
        sort_marks(lane.marks);
        cut_head(lane, from_us);
        cut_tail(lane, to_us);
    }
}

} // namespace

std::optional<std::int64_t> parse_row_time(std::string_view text)
{
    if (text.size() < decimals + 1 || text[text.size() - decimals - 1] != '.') {
        return std::nullopt;
    }
    const auto time = split_time(text);
    if (!time) {
        return std::nullopt;
    }
    return (time->is_negative ? -time->seconds : time->seconds) * us_per_second + time->fraction_us;
}

std::optional<std::int64_t> parse_time(std::string_view text)
{
    const auto time = split_time(text);
    if (!time) {
        return std::nullopt;
    }
    const std::int64_t time_us = time->seconds * us_per_second + time->fraction_us;
    return time->is_negative ? -time_us : time_us;
}

std::string show_time(std::int64_t time_us)
{
    char text[32];
    const std::int64_t size_us = time_us < 0 ? -time_us : time_us;
    std::snprintf(text, sizeof text, "%s%lld.%06lld", time_us < 0 ? "-" : "",
                  static_cast<long long>(size_us / us_per_second),
                  static_cast<long long>(size_us % us_per_second));
    return text;
}

std::size_t timeline::count_marks() const
{
    std::size_t count = 0;
    for_each_lane([&](const timing_trace &, const lane &each) { count += each.marks.size(); });
    return count;
}

void timeline::for_each_lane(const std::function<void(const timing_trace &, const lane &)> &visit) const
{
    for (const timing_trace &trace : traces) {
        for (const lane &lane : trace.lanes) {
            visit(trace, lane);
        }
    }
}

// The library sets a whole number of microseconds, which the system's own time hardly ever is.
std::string find_start(const std::string &path, timing_trace &trace)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return std::strerror(errno);
    }
    const timespec &modified = status.st_mtim;
    if (modified.tv_sec < -most_seconds || modified.tv_sec > most_seconds) {
        return "its time of modification is out of range";
    }
    const std::int64_t start_us =
        modified.tv_sec * us_per_second + modified.tv_nsec / 1000 - trace.last_row_us;
    const bool is_coarse = modified.tv_nsec % coarsest_ns == 0; // the file system may have cut the rest
    if (modified.tv_nsec % 1000 != 0 || is_coarse) {
        return "its start is unknown, because its time of modification is not that of its last row (cp -p "
               "keeps "
               "it); if this is no copy, --start " +
               show_time(start_us) + " is near";
    }
    trace.start_us = start_us;
    return "";
}

timeline join(std::vector<timing_trace> traces, const time_window &window)
{
    timeline all;
    all.traces = std::move(traces);
    const timing_trace &first = all.traces.front();
    all.start_us = first.start_us;
    for (timing_trace &trace : all.traces) {
        if (all.is_joined()) {
            shift(trace, trace.start_us.value_or(0) - all.start_us.value_or(0));
        }
        cut(trace, window);
    }
    all.first_us = first.first_us;
    all.last_us = first.last_us;
    for (const timing_trace &trace : all.traces) {
        all.first_us = std::min(all.first_us, trace.first_us);
        all.last_us = std::max(all.last_us, trace.last_us);
    }
    return all;
}

} // namespace zol_tools
