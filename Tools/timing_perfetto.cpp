// The trace-event format: https://docs.google.com/document/d/1CvAClvFfyA5R-PhYUmn5OOQtYMH4h6I0nSsKchNAySU

#include <algorithm>

#include "timing_output.h"
#include "timing_text.h"

namespace zol_tools
{
namespace
{

// The identifiers of a track. The viewers know a thread by its own number alone, and take the one with the number of
// its process for the main thread. So all numbers differ.
struct track {
    std::size_t process;
    std::size_t thread;

    [[nodiscard]] std::string shown() const
    {
        return "\"pid\":" + std::to_string(process) + ",\"tid\":" + std::to_string(thread);
    }
};

class trace_events
{
public:
    explicit trace_events(output_file &file) : file_(file) {}

    void name(const track &at, const std::string &scope, const std::string &name, std::size_t order)
    {
        write(R"("ph":"M","name":")" + scope + R"(_name",)" + at.shown() + R"(,"args":{"name":)" +
              quote_json(name) + "}");
        write(R"("ph":"M","name":")" + scope + R"(_sort_index",)" + at.shown() + R"(,"args":{"sort_index":)" +
              std::to_string(order) + "}");
    }

    void begin(const track &at, const std::string &name, std::int64_t time_us)
    {
        write(R"("ph":"B","name":)" + name + "," + at.shown() + ts(time_us));
    }

    void end(const track &at, std::int64_t time_us) { write(R"("ph":"E",)" + at.shown() + ts(time_us)); }

    void instant(const track &at, const std::string &name, std::int64_t time_us)
    {
        write(R"("ph":"i","s":"t","name":)" + name + "," + at.shown() + ts(time_us));
    }

    void count(const track &at, const std::string &name, std::int64_t time_us, std::uint32_t value)
    {
        write(R"("ph":"C","name":)" + name + R"(,"pid":)" + std::to_string(at.process) + ts(time_us) +
              R"(,"args":{"count":)" + std::to_string(value) + "}");
    }

private:
    static std::string ts(std::int64_t time_us) { return ",\"ts\":" + std::to_string(time_us); }

    void write(const std::string &fields)
    {
        file_ << (is_first_ ? "\n{" : ",\n{") << fields << "}";
        is_first_ = false;
    }

    output_file &file_;
    bool is_first_ = true;
};

// The events of a lane, in the order of time.
class lane_writer
{
public:
    lane_writer(const lane &lane, const track &at, trace_events &events)
        : lane_(lane), at_(at), events_(events), name_(quote_json(lane.label)),
          count_name_(lane.is_count ? name_ : quote_json(lane.label + " count"))
    {
    }

    void begin(std::int64_t time_us)
    {
        if (counts_pulses()) {
            events_.count(at_, count_name_, time_us, 0); // the viewers draw a counter from its first value on
        }
        if (lane_.initial.value_or(false)) {
            set_level(true, name_, time_us);
        }
    }

    void write(const mark &mark, std::int64_t time_us)
    {
        const std::string *const text = lane_.text_of(mark);
        const std::string name = text != nullptr ? quote_json(*text) : name_;
        if (mark.kind == mark_kind::pulse) {
            events_.instant(at_, name, time_us);
            count_pulse(time_us);
        } else if (mark.kind == mark_kind::count) {
            events_.count(at_, count_name_, time_us, mark.detail);
        } else {
            set_level(mark.kind == mark_kind::high, name, time_us);
        }
    }

    void end(std::int64_t time_us) { set_level(false, name_, time_us); }

private:
    // Those of the journal are told apart by their texts instead.
    [[nodiscard]] bool counts_pulses() const
    {
        return lane_.texts.empty() &&
               std::any_of(lane_.marks.begin(), lane_.marks.end(),
                           [](const mark &each) { return each.kind == mark_kind::pulse; });
    }

    void count_pulse(std::int64_t time_us)
    {
        if (lane_.texts.empty()) {
            events_.count(at_, count_name_, time_us, ++pulses_);
        }
    }

    void set_level(bool high, const std::string &name, std::int64_t time_us)
    {
        if (high && !high_) {
            events_.begin(at_, name, time_us);
        } else if (!high && high_) {
            events_.end(at_, time_us);
        }
        high_ = high;
    }

    const lane &lane_;
    track at_;
    trace_events &events_;
    std::string name_;
    std::string count_name_;
    bool high_ = false;
    std::uint32_t pulses_ = 0;
};

// A count has no track of a thread: the viewers make one for its counter.
void name_lane(const lane &lane, const track &at, trace_events &events)
{
    if (!lane.is_count) {
        events.name(at, "thread", lane.label, at.thread);
    }
}

} // namespace

void write_perfetto(const timeline &all, const std::string &title, output_file &file)
{
    file << R"({"displayTimeUnit":"ms","otherData":{"title":)" << quote_json(title);
    if (all.start_us) {
        file << R"(,"start":")" << show_time(*all.start_us + all.first_us) << "\"";
    }
    file << "},\"traceEvents\":[";
    trace_events events(file);
    track at = {0, all.traces.size()};
    for (const timing_trace &trace : all.traces) {
        ++at.process;
        events.name({at.process, at.process}, "process", trace.name, at.process);
        for (const lane &lane : trace.lanes) {
            ++at.thread;
            name_lane(lane, at, events);
            lane_writer writer(lane, at, events);
            writer.begin(trace.first_us - all.first_us);
            for (const mark &mark : lane.marks) {
                writer.write(mark, mark.time_us - all.first_us);
                file.count_mark();
            }
            writer.end(trace.last_us - all.first_us);
        }
    }
    file << "\n]}\n";
}

} // namespace zol_tools
