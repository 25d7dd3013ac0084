#include <algorithm>
#include <bitset>
#include <queue>

#include "timing_output.h"

namespace zol_tools
{
namespace
{

// Short names of printable characters.
std::string code_of(std::size_t lane)
{
    constexpr std::size_t first = '!';
    constexpr std::size_t count = '~' - '!' + 1;
    std::string code;
    do {
        code += static_cast<char>(first + lane % count);
        lane /= count;
    } while (lane > 0);
    return code;
}

// Names in the format hold no blanks.
std::string name_of(const std::string &label)
{
    std::string name = label.empty() ? "lane" : label;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return c <= ' ' || c > '~' || c == '$'; }, '_');
    return name;
}

std::string binary(std::uint32_t value)
{
    const std::string digits = std::bitset<32>(value).to_string();
    return digits.substr(std::min(digits.find('1'), digits.size() - 1));
}

// The values of a lane over time. A pulse, which takes no time in the log, lasts a microsecond.
class signal
{
public:
    signal(const lane &lane, std::string code)
        : lane_(&lane), code_(std::move(code)), high_(lane.initial.value_or(false)),
          shown_(!lane.initial ? 'x'
                 : high_       ? '1'
                               : '0')
    {
    }

    [[nodiscard]] std::string declared() const
    {
        const std::string type = lane_->is_count ? "integer 32 " : "wire 1 ";
        return "$var " + type + code_ + " " + name_of(lane_->label) + " $end\n";
    }

    [[nodiscard]] std::string initial() const
    {
        return (lane_->is_count ? "bx " : std::string(1, shown_)) + code_ + "\n";
    }

    [[nodiscard]] bool has_ended() const { return !fall_us_ && place_ == lane_->marks.size(); }

    /// The next step is a mark, not the end of a pulse. A mark in the microsecond of a pulse comes before its end.
    [[nodiscard]] bool is_at_mark() const
    {
        return place_ < lane_->marks.size() && (!fall_us_ || lane_->marks[place_].time_us < *fall_us_);
    }

    /// The time of the next step. Not after the end.
    [[nodiscard]] std::int64_t next_us() const
    {
        return is_at_mark() ? lane_->marks[place_].time_us : *fall_us_;
    }

    /// @return The change of the next step; "" if nothing changes.
    std::string step()
    {
        if (is_at_mark()) {
            return apply(lane_->marks[place_++]);
        }
        fall_us_.reset();
        return show('0');
    }

private:
    std::string apply(const mark &mark)
    {
        switch (mark.kind) {
        case mark_kind::count:
            return "b" + binary(mark.detail) + " " + code_ + "\n";
        case mark_kind::pulse:
            fall_us_ = high_ ? std::nullopt : std::optional(mark.time_us + 1);
            return show('1');
        case mark_kind::high:
            high_ = true;
            fall_us_.reset();
            return show('1');
        case mark_kind::low:
            break;
        }
        high_ = false;
        return fall_us_ ? "" : show('0');
    }

    std::string show(char value)
    {
        const bool changes = value != shown_;
        shown_ = value;
        return changes ? value + code_ + "\n" : "";
    }

    const lane *lane_;
    std::string code_;
    bool high_;
    char shown_;
    std::size_t place_ = 0;
    std::optional<std::int64_t> fall_us_ = {};
};

std::vector<signal> declare(const timeline &all, output_file &file)
{
    std::vector<signal> signals;
    file << "$timescale 1 us $end\n$scope module timing $end\n";
    for (const timing_trace &trace : all.traces) {
        if (all.is_joined()) {
            file << "$scope module " << name_of(trace.name) << " $end\n";
        }
        for (const lane &lane : trace.lanes) {
            signals.emplace_back(lane, code_of(signals.size()));
            file << signals.back().declared();
        }
        file << (all.is_joined() ? "$upscope $end\n" : "");
    }
    file << "$upscope $end\n$enddefinitions $end\n#0\n$dumpvars\n";
    for (const signal &signal : signals) {
        file << signal.initial();
    }
    file << "$end\n";
    return signals;
}

// The steps of all signals in the order of time.
class merged_steps
{
public:
    explicit merged_steps(std::vector<signal> &signals) : signals_(signals)
    {
        for (std::size_t i = 0; i < signals.size(); ++i) {
            put(i);
        }
    }

    [[nodiscard]] bool has_ended() const { return next_.empty(); }
    [[nodiscard]] std::int64_t next_us() const { return next_.top().first; }
    [[nodiscard]] bool is_at_mark() const { return signals_[next_.top().second].is_at_mark(); }

    std::string step()
    {
        const std::size_t index = next_.top().second;
        next_.pop();
        std::string change = signals_[index].step();
        put(index);
        return change;
    }

private:
    using entry = std::pair<std::int64_t, std::size_t>;

    void put(std::size_t index)
    {
        if (!signals_[index].has_ended()) {
            next_.emplace(signals_[index].next_us(), index);
        }
    }

    std::vector<signal> &signals_;
    std::priority_queue<entry, std::vector<entry>, std::greater<>> next_;
};

} // namespace

void write_vcd(const timeline &all, const std::string &, output_file &file)
{
    std::vector<signal> signals = declare(all, file);
    std::int64_t now = 0;
    for (merged_steps steps(signals); !steps.has_ended();) {
        const std::int64_t time_us = steps.next_us() - all.first_us;
        if (steps.is_at_mark()) {
            file.count_mark();
        }
        const std::string change = steps.step();
        if (time_us != now && !change.empty()) {
            now = time_us;
            file << "#" << std::to_string(now) << "\n";
        }
        file << change;
    }
    file << "#" << std::to_string(std::max(now, all.last_us - all.first_us) + 1) << "\n";
}

} // namespace zol_tools
