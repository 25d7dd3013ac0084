// Interrupts of pins.

#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iterator>

#include "duration.h"
#include "interrupt_queue.h"
#include "interruption.h"
#include "pins.h"

namespace zol_tool
{

namespace
{

constexpr const char *default_format = "%t pin %p level %l count %n";
constexpr std::string_view format_letters = "pltsn%";

constexpr struct {
    std::string_view name;
    zol::trigger trigger;
} edges[] = {
    {"rising", zol::trigger::rising}, {"falling", zol::trigger::falling}, {"both", zol::trigger::both_edges}};

struct watch_order {
    std::vector<int> numbers;
    zol::trigger edge = zol::trigger::both_edges;
    std::optional<std::uint32_t> most;               // interrupts
    std::optional<std::chrono::nanoseconds> timeout; // for all of them
    std::string format = default_format;
};

// A pin that is watched.
struct watched_pin {
    zol::pin pin;
    std::uint64_t count = 0;
};

std::optional<zol::trigger> parse_edge(std::string_view name)
{
    const auto *const at = std::ranges::find(edges, name, [](const auto &edge) { return edge.name; });
    return at != std::ranges::end(edges) ? std::optional(at->trigger) : std::nullopt;
}

bool is_format(std::string_view text)
{
    for (std::size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%', at + 2)) {
        if (at + 1 == text.size() || format_letters.find(text[at + 1]) == std::string_view::npos) {
            return false;
        }
    }
    return true;
}

// @return "" or the mistake.
std::string parse_options(context &with, watch_order &wanted)
{
    const auto edge = parse_edge(with.value("--edge", "both"));
    if (!edge) {
        return "--edge " + with.value("--edge") + " is not rising, falling or both";
    }
    wanted.edge = *edge;
    if (with.has("--timeout")) {
        wanted.timeout = kivboard::parse_duration(with.value("--timeout"));
        if (!wanted.timeout) {
            return "--timeout " + with.value("--timeout") + " is no time of " + kivboard::duration_range;
        }
    }
    if (with.has("--count")) {
        wanted.most = parse_number(with.value("--count"));
        if (wanted.most.value_or(0) == 0) {
            return "--count " + with.value("--count") + " is no number of interrupts";
        }
    }
    wanted.format = with.value("--format", default_format);
    return is_format(wanted.format) ? "" : "--format knows %p, %l, %t, %s, %n and %% only";
}

// @return Nothing after a complaint.
std::optional<watch_order> parse_order(context &with)
{
    watch_order wanted;
    const std::string mistake = parse_options(with, wanted);
    if (!mistake.empty()) {
        usage_error(with, mistake);
        return std::nullopt;
    }
    auto numbers = parse_pins(with, with.operands);
    if (!numbers) {
        return std::nullopt;
    }
    wanted.numbers = std::move(*numbers);
    return wanted;
}

// "1764081000.000123"
std::string seconds_text(std::chrono::system_clock::duration time)
{
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
    char text[40];
    std::snprintf(text, sizeof text, "%lld.%06lld", static_cast<long long>(us / 1'000'000),
                  static_cast<long long>(us % 1'000'000));
    return text;
}

// "14:30:00.000123", local time
std::string clock_text(std::chrono::system_clock::time_point time)
{
    const std::time_t second =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time));
    std::tm parts = {};
    localtime_r(&second, &parts);
    char text[16];
    const std::size_t length = std::strftime(text, sizeof text, "%H:%M:%S", &parts);
    const std::string fraction = seconds_text(time.time_since_epoch());
    return std::string(text, length) + fraction.substr(fraction.find('.'));
}

struct seen_interrupt {
    interrupt what;
    int level; // when it is printed: the callback may not ask for it
    std::uint64_t count;
    std::chrono::system_clock::duration since_start;
};

json as_json(const seen_interrupt &seen)
{
    const std::chrono::duration<double> time = seen.what.time.time_since_epoch();
    return json::object(
        {{"pin", seen.what.pin}, {"level", seen.level}, {"time", time.count()}, {"count", seen.count}});
}

std::string field(char letter, const seen_interrupt &seen)
{
    switch (letter) {
    case 'p':
        return std::to_string(seen.what.pin);
    case 'l':
        return std::to_string(seen.level);
    case 't':
        return clock_text(seen.what.time);
    case 's':
        return seconds_text(seen.since_start);
    case 'n':
        return std::to_string(seen.count);
    default:
        return "%";
    }
}

// The format has been checked.
std::string formatted(std::string_view format, const seen_interrupt &seen)
{
    std::string text;
    for (std::size_t at = format.find('%'); at != std::string_view::npos; at = format.find('%')) {
        text += std::string(format.substr(0, at)) + field(format[at + 1], seen);
        format.remove_prefix(at + 2);
    }
    return text += format;
}

enum class ending { signal, count, timeout, output };

// Prints interrupts while it lives.
class watcher
{
public:
    watcher(context &with, const watch_order &wanted, std::vector<zol::pin> &pins, interruption &interrupted)
        : with_(with), wanted_(wanted), interrupted_(interrupted)
    {
        for (zol::pin &pin : pins) {
            pins_.push_back({std::move(pin)});
        }
    }

    /// @return False after a complaint.
    bool begin()
    {
        return std::ranges::all_of(pins_, [this](watched_pin &each) {
            return went_well(with_, each.pin.watch(wanted_.edge, queue_),
                             "pin " + std::to_string(each.pin.number()));
        });
    }

    /// Ends the callbacks first, so that nothing is lost.
    ending follow()
    {
        with_.log.report_at_once(); // the listener's thread logs at any time
        const ending end = print_until_end();
        for (watched_pin &each : pins_) {
            static_cast<void>(each.pin.unwatch()); // a failure is reported
        }
        print_waiting();
        return end;
    }

private:
    ending print_until_end()
    {
        const steady_time start = std::chrono::steady_clock::now();
        const auto end = wanted_.timeout ? std::optional(start + *wanted_.timeout) : std::nullopt;
        pollfd ready[] = {{queue_.descriptor(), POLLIN, 0},
                          {interrupted_.descriptor(), POLLIN, 0},
                          {with_.out.descriptor(), 0, 0}}; // reports when its reader has gone
        while (true) {
            print_waiting();
            if (is_counted()) {
                return ending::count;
            }
            if (interrupted_.signal() != 0) {
                return ending::signal;
            }
            if (!with_.out.is_good() || (ready[2].revents & POLLERR) != 0) {
                return ending::output;
            }
            if (end && std::chrono::steady_clock::now() >= *end) {
                return ending::timeout;
            }
            ppoll(ready, std::size(ready), time_left(end).get(), nullptr);
        }
    }

    [[nodiscard]] bool is_counted() const { return wanted_.most && printed_ >= *wanted_.most; }

    void print_waiting()
    {
        for (const interrupt &each : queue_.take()) {
            if (!is_counted()) {
                ++printed_;
                print(each);
            }
        }
        with_.out.flush();
    }

    void print(const interrupt &each)
    {
        watched_pin &at =
            *std::ranges::find(pins_, each.pin, [](const watched_pin &one) { return one.pin.number(); });
        const auto level = at.pin.level();
        const seen_interrupt seen = {each, level ? *level : 0, ++at.count, each.time - start_};
        with_.out.raw((with_.json ? as_json(seen).text() : formatted(wanted_.format, seen)) + "\n");
    }

    context &with_;
    const watch_order &wanted_;
    interruption &interrupted_;
    interrupt_queue queue_; // outlives the pins, whose callback it is
    std::vector<watched_pin> pins_;
    std::uint64_t printed_ = 0;
    std::chrono::system_clock::time_point start_ = std::chrono::system_clock::now();
};

// The status that an ending has for a command.
using judgement = int (*)(context &with, ending end, int signal);

int follow_pins(context &with, const watch_order &wanted, judgement judge)
{
    interruption interrupted;
    return with_pins(with, wanted.numbers, [&](std::vector<zol::pin> &pins) {
        watcher watching(with, wanted, pins, interrupted);
        if (!watching.begin()) {
            return static_cast<int>(refused);
        }
        const ending end = watching.follow();
        if (end == ending::output && with.out.is_good()) {
            with.out.error("nobody reads the standard output");
        }
        return judge(with, end, interrupted.signal());
    });
}

int judge_wait(context &with, ending end, int signal)
{
    if (end == ending::timeout) {
        with.out.error("no interrupt within " + with.value("--timeout"));
    }
    return end == ending::count ? done : end == ending::signal ? status_of_signal(signal) : refused;
}

int judge_watch(context &with, ending end, int)
{
    return end == ending::output || with.log.has_reported() ? refused : done;
}

} // namespace

int gpio_wait(context &with)
{
    auto wanted = parse_order(with);
    if (!wanted) {
        return wrong_usage;
    }
    wanted->most = 1;
    return follow_pins(with, *wanted, judge_wait);
}

int gpio_watch(context &with)
{
    const auto wanted = parse_order(with);
    return wanted ? follow_pins(with, *wanted, judge_watch) : wrong_usage;
}

} // namespace zol_tool
