// The journal of a virtual board: pins and devices as lanes.

#include <string.h> // strverscmp

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <map>

#include "timing_lines.h"
#include "timing_trace.h"

namespace zol_tools
{
namespace
{

using object = std::map<std::string, std::string, std::less<>>;

// Reads the objects of the journal, whose values are numbers and strings.
class object_reader
{
public:
    explicit object_reader(std::string_view text) : left_(text) {}

    std::optional<object> read()
    {
        object result;
        bool goes_on = take('{');
        while (goes_on) {
            const std::optional<std::string> name = read_string();
            const std::optional<std::string> value = name && take(':') ? read_value() : std::nullopt;
            if (!value) {
                return std::nullopt;
            }
            result[*name] = *value;
            goes_on = take(',');
        }
        return take('}') && left_.empty() && !result.empty() ? std::optional(result) : std::nullopt;
    }

private:
    bool take(char expected)
    {
        const bool is_there = left_.starts_with(expected);
        left_.remove_prefix(is_there ? 1 : 0);
        return is_there;
    }

    std::optional<std::string> read_string()
    {
        std::string text;
        if (!take('"')) {
            return std::nullopt;
        }
        while (!left_.empty() && left_[0] != '"') {
            const bool is_escaped = take('\\');
            if (left_.empty() || (is_escaped && left_[0] != '"' && left_[0] != '\\')) {
                return std::nullopt;
            }
            text += left_[0];
            left_.remove_prefix(1);
        }
        return take('"') ? std::optional(text) : std::nullopt;
    }

    std::optional<std::string> read_value()
    {
        if (left_.starts_with('"')) {
            return read_string();
        }
        const std::size_t size = std::min(left_.find_first_not_of("-.0123456789"), left_.size());
        const std::string number(left_.substr(0, size));
        left_.remove_prefix(size);
        return size > 0 ? std::optional(number) : std::nullopt;
    }

    std::string_view left_;
};

// The whole number at the head of a text.
std::optional<std::uint32_t> number_at(std::string_view text)
{
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() ? std::optional(value) : std::nullopt;
}

// The number behind a word of a text.
std::optional<std::uint32_t> number_behind(std::string_view text, std::string_view word)
{
    const std::size_t place = text.find(word);
    return place == std::string_view::npos ? std::nullopt : number_at(text.substr(place + word.size()));
}

class lane_table
{
public:
    void add_pulse(const std::string &label, std::int64_t time_us, const std::string &text)
    {
        lane &target = lanes_[label];
        target.initial = false;
        target.marks.push_back({time_us, add_text(target, text), mark_kind::pulse});
    }

    void add_level(const std::string &label, std::int64_t time_us, bool high)
    {
        lanes_[label].marks.push_back({time_us, 0, high ? mark_kind::high : mark_kind::low});
    }

    void add_count(const std::string &label, std::int64_t time_us, std::uint32_t count)
    {
        lane &target = lanes_[label];
        target.is_count = true;
        target.marks.push_back({time_us, count, mark_kind::count});
    }

    // A transfer whose duration is known takes the time before its end.
    void add_span(const std::string &label, std::int64_t end_us, std::uint32_t duration_us,
                  const std::string &text)
    {
        lane &target = lanes_[label];
        std::int64_t begin_us = end_us - duration_us;
        if (!target.marks.empty() && target.marks.back().time_us <= end_us) { // else the clock was set back
            begin_us = std::max(begin_us, target.marks.back().time_us);
        }
        target.initial = false;
        target.marks.push_back({begin_us, add_text(target, text), mark_kind::high});
        target.marks.push_back({end_us, 0, mark_kind::low});
    }

    // The lanes of a device are neighbours, and pin 5 comes before pin 17.
    [[nodiscard]] std::vector<lane> take()
    {
        std::vector<lane> result;
        for (auto &[label, lane] : lanes_) {
            lane.label = label;
            result.push_back(std::move(lane));
        }
        return result;
    }

private:
    struct by_number {
        bool operator()(const std::string &a, const std::string &b) const
        {
            return strverscmp(a.c_str(), b.c_str()) < 0;
        }
    };

    static std::uint32_t add_text(lane &target, const std::string &text)
    {
        target.texts.push_back(text);
        return static_cast<std::uint32_t>(target.texts.size());
    }

    std::map<std::string, lane, by_number> lanes_;
};

struct event {
    std::int64_t time_us;
    std::string device;
    std::string text;
    bool has_failed;
};

// "raise 3: counted, 2 pending", "level 1: dropped, masked"
void add_interrupt(lane_table &lanes, const event &event)
{
    if (event.text.find("no interrupt") == std::string::npos) {
        lanes.add_pulse(event.device + " interrupt", event.time_us, event.text);
    }
    if (const auto pending = number_behind(event.text, "counted, ")) {
        lanes.add_count(event.device + " pending", event.time_us, *pending);
    }
}

// "level W[1] ok", "level 1: no interrupt"
void add_level(lane_table &lanes, const event &event)
{
    const auto written = number_behind(event.text, "level W[");
    const auto stimulus = number_behind(event.text, "level ");
    if (written || stimulus) {
        lanes.add_level(event.device + " level", event.time_us, written.value_or(stimulus.value_or(0)) != 0);
    }
    if (stimulus) {
        add_interrupt(lanes, event);
    }
}

// "irq R[3] ok": reading the count clears it.
void add_read(lane_table &lanes, const event &event)
{
    lanes.add_count(event.device + " pending", event.time_us, 0);
}

void add_setting(lane_table &lanes, const event &event)
{
    lanes.add_pulse(event.device + " settings", event.time_us, event.text);
}

void add_pin_event(lane_table &lanes, const event &event)
{
    static constexpr struct {
        std::string_view head;
        void (*add)(lane_table &, const zol_tools::event &);
    } table[] = {{"raise ", add_interrupt}, {"level ", add_level}, {"irq R[", add_read}};
    const auto *const found = std::find_if(std::begin(table), std::end(table), [&event](const auto &each) {
        return event.text.starts_with(each.head);
    });
    const bool is_known = found != std::end(table) && !event.has_failed;
    is_known ? found->add(lanes, event) : add_setting(lanes, event);
}

// "0x18 W[0f] R[33] ok", on a real bus with the duration: "0x18 W[0f] R[33] ok, 312 us"
void add_bus_event(lane_table &lanes, const event &event)
{
    const std::string label = event.device + " " + event.text.substr(0, event.text.find(' '));
    const std::size_t comma = event.text.rfind(", ");
    if (event.text.ends_with(" us") && comma != std::string::npos) {
        lanes.add_span(label, event.time_us, number_at(event.text.substr(comma + 2)).value_or(0), event.text);
    } else {
        lanes.add_pulse(label, event.time_us, event.text);
    }
}

class journal_reader
{
public:
    // @return "" or the mistake.
    std::string add_line(const line_reader &lines, std::string_view line)
    {
        const std::optional<object> fields = object_reader(line).read();
        if (fields && fields->contains("gone")) {
            const std::string note = fields->at("gone") + " older events are gone";
            std::fprintf(stderr, "zol_timing: %s\n", lines.mistake(note).c_str());
            return "";
        }
        if (!fields || !fields->contains("device") || !fields->contains("event") ||
            !fields->contains("wall")) {
            return "this is no line of kivboard journal --json";
        }
        const std::optional<std::int64_t> time = parse_row_time(fields->at("wall"));
        return time ? add_event(*time, *fields) : "\"" + fields->at("wall") + "\" is no time";
    }

    timing_trace finish()
    {
        trace_.name = "board";
        trace_.lanes = lanes_.take();
        for (const lane &lane : trace_.lanes) {
            for (const mark &mark : lane.marks) { // the first transfer began before the first event
                trace_.first_us = std::min(trace_.first_us, mark.time_us);
            }
        }
        return std::move(trace_);
    }

private:
    std::string add_event(std::int64_t wall_us, const object &fields)
    {
        const std::int64_t start_us = *(trace_.start_us = trace_.start_us.value_or(wall_us));
        const auto error = fields.find("errno");
        const event event = {wall_us - start_us, fields.at("device"), fields.at("event"),
                             error != fields.end() && error->second != "0"};
        (event.device.starts_with("gpio_") ? add_pin_event : add_bus_event)(lanes_, event);
        trace_.last_us = std::max(trace_.last_us, event.time_us);
        return "";
    }

    timing_trace trace_;
    lane_table lanes_;
};

} // namespace

std::optional<timing_trace> read_journal(const std::string &path, std::string &error)
{
    line_reader lines(path);
    std::string_view line;
    journal_reader journal;
    std::string problem;
    while (problem.empty() && lines.next(line) && !lines.is_cut()) {
        problem = journal.add_line(lines, line);
    }
    if (!problem.empty() || !lines.failure().empty()) {
        error = problem.empty() ? lines.failure() : lines.mistake(problem);
        return std::nullopt;
    }
    if (lines.is_cut()) {
        std::fprintf(stderr, "zol_timing: %s\n", lines.mistake("the line is cut short and left out").c_str());
    }
    timing_trace trace = journal.finish();
    if (!trace.start_us) {
        error = path + ": has no events";
        return std::nullopt;
    }
    return trace;
}

} // namespace zol_tools
