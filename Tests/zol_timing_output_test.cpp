// The outputs of zol_timing say of random logs what the logs say: each is read back and compared at every microsecond.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/scratch.h"
#include "timing_output.h"

using namespace zol_tools;

namespace
{

using writer = void (*)(const timeline &all, const std::string &title, output_file &file);

std::istringstream written(writer write, const timeline &all)
{
    const zol_test::scratch_directory scratch;
    const std::string path = scratch.path() / "output";
    output_file file(path, all.count_marks());
    write(all, "title", file);
    EXPECT_EQ(file.close(), 0);
    std::ifstream input(path);
    return std::istringstream(std::string(std::istreambuf_iterator<char>(input), {}));
}

// Values by the times from which they hold.
using history = std::map<std::int64_t, std::int64_t>;
constexpr std::int64_t unknown = -1;

std::int64_t value_at(const history &values, std::int64_t time_us)
{
    const auto after = values.upper_bound(time_us);
    return after == values.begin() ? unknown : std::prev(after)->second;
}

// A lane as it was before any output: its levels or counts, and its pulses.
struct lane_history {
    history values;
    std::multiset<std::int64_t> pulses;
};

lane_history history_of(const lane &lane, std::int64_t shift_us)
{
    lane_history made;
    std::vector<mark> marks = lane.marks;
    std::ranges::stable_sort(marks, {}, &mark::time_us);
    made.values[INT64_MIN] = lane.initial ? *lane.initial : unknown;
    for (const mark &each : marks) {
        if (each.kind == mark_kind::pulse) {
            made.pulses.insert(each.time_us + shift_us);
        } else {
            made.values[each.time_us + shift_us] = each.kind == mark_kind::count  ? each.detail
                                                   : each.kind == mark_kind::high ? 1
                                                                                  : 0;
        }
    }
    return made;
}

class random_logs
{
public:
    explicit random_logs(unsigned seed) : random_(seed) {}

    int below(int end) { return static_cast<int>(random_() % static_cast<unsigned>(end)); }
    std::uint32_t count() { return static_cast<std::uint32_t>(random_() >> below(32)); }

    std::vector<timing_trace> make()
    {
        std::vector<timing_trace> traces(static_cast<std::size_t>(1 + below(3)));
        for (timing_trace &trace : traces) {
            trace.start_us = 1'000 + below(30);
            for (int i = below(4); i >= 0; --i) {
                trace.lanes.push_back(make_lane());
                for (const mark &each : trace.lanes.back().marks) {
                    trace.first_us = std::min(trace.first_us, each.time_us);
                    trace.last_us = std::max(trace.last_us, each.time_us);
                }
            }
        }
        return traces;
    }

    time_window make_window()
    {
        time_window window;
        if (below(2) == 0) {
            window.from_us = below(60) - 20;
        }
        if (below(2) == 0) {
            window.to_us = window.from_us.value_or(-20) + 1 + below(60);
        }
        return window;
    }

private:
    // The journal's lanes of levels begin unknown; pulses are of lanes that are known.
    lane make_lane()
    {
        const int kind = below(3);
        lane made = {.label = "lane", .is_count = kind == 0, .initial = {}};
        if (kind == 1) {
            made.initial = below(2) == 0;
        }
        for (int i = below(12); i > 0; --i) {
            const auto time_us = static_cast<std::int64_t>(below(40) - 5);
            made.marks.push_back(kind == 0
                                     ? mark{time_us, count(), mark_kind::count}
                                     : mark{time_us, 0, static_cast<mark_kind>(below(kind == 1 ? 3 : 2))});
        }
        if (below(3) > 0) {
            std::ranges::stable_sort(made.marks, {}, &mark::time_us);
        }
        return made;
    }

    std::mt19937 random_;
};

// A random timeline, and the histories of its lanes before it was joined and cut.
struct joined_logs {
    explicit joined_logs(unsigned seed)
    {
        random_logs random(seed);
        const std::vector<timing_trace> traces = random.make();
        for (const timing_trace &trace : traces) {
            for (const lane &each : trace.lanes) {
                histories.push_back(history_of(each, *trace.start_us - *traces[0].start_us));
            }
        }
        window = random.make_window();
        all = join(traces, window);
    }

    timeline all;
    time_window window;
    std::vector<lane_history> histories;
};

// The signals of a waveform file, in the order of their declarations.
std::vector<history> read_vcd(std::istringstream file)
{
    std::vector<history> signals;
    std::map<std::string, std::size_t> codes;
    std::int64_t now = unknown;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string first;
        std::string second;
        words >> first >> second;
        if (first == "$var") {
            words >> second >> second; // the width, the code
            EXPECT_TRUE(codes.emplace(second, signals.size()).second) << line;
            signals.emplace_back();
        } else if (first.starts_with('#')) {
            EXPECT_GT(std::stoll(first.substr(1)), now);
            now = std::stoll(first.substr(1));
        } else if (first.starts_with('b')) {
            signals.at(codes.at(second))[now] =
                first == "bx" ? unknown : std::stoll(first.substr(1), nullptr, 2);
        } else if (!first.starts_with('$')) {
            signals.at(codes.at(first.substr(1)))[now] = first[0] == 'x' ? unknown : first[0] - '0';
        }
    }
    return signals;
}

std::string field(const std::string &line, const std::string &name)
{
    const std::size_t at = line.find("\"" + name + "\":");
    const std::size_t begin = at + name.size() + 3;
    return at == std::string::npos ? "" : line.substr(begin, line.find_first_of(",}", begin) - begin);
}

// The tracks of threads, which have the numbers behind those of the processes.
std::map<int, lane_history> read_perfetto(std::istringstream file)
{
    std::map<int, lane_history> threads;
    for (std::string line; std::getline(file, line);) {
        const std::string phase = field(line, "ph");
        if (phase.empty() || phase == "\"M\"" || phase == "\"C\"") {
            continue;
        }
        lane_history &at = threads[std::stoi(field(line, "tid"))];
        const std::int64_t time_us = std::stoll(field(line, "ts"));
        EXPECT_LE(at.values.empty() ? 0 : at.values.rbegin()->first, time_us);
        if (phase == "\"i\"") {
            at.pulses.insert(time_us);
        } else {
            EXPECT_NE(value_at(at.values, time_us) == 1, phase == "\"B\"") << line; // balanced
            at.values[time_us] = phase == "\"B\"" ? 1 : 0;
        }
    }
    return threads;
}

// A picture's lane: where its line is vertical, its dots, and its blocks.
struct picture {
    std::vector<double> steps;
    std::vector<double> dots;
    std::vector<std::pair<double, double>> blocks;
};

picture read_svg(std::istringstream file)
{
    picture seen;
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with("<path")) {
            continue;
        }
        double x = 0;
        for (std::size_t at = line.find_first_of("MHVhz"); line.find('"', 9) > at && at != std::string::npos;
             at = line.find_first_of("MHVhz", at + 1)) {
            const double number = std::strtod(line.c_str() + at + 1, nullptr);
            const bool is_block =
                line.find("fill=\"none\"") == std::string::npos && line.find("h0") > line.size();
            if (is_block && line[at] == 'H') {
                seen.blocks.emplace_back(x, number);
            } else if (line[at] == 'V' && !is_block) {
                seen.steps.push_back(x);
            } else if (line[at] == 'h') {
                seen.dots.push_back(x);
            }
            x = line[at] == 'M' || line[at] == 'H' ? number : x;
        }
    }
    return seen;
}

bool is_at(const std::vector<double> &places, double x)
{
    return std::ranges::any_of(places, [x](double each) { return std::abs(each - x) < 0.006; });
}

} // namespace

TEST(TimingOutputs, KeepEveryValue)
{
    for (unsigned seed = 1; seed <= 200 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        const joined_logs logs(seed);
        const timeline &all = logs.all;
        EXPECT_GE(all.first_us, logs.window.from_us.value_or(all.first_us));
        EXPECT_LE(all.last_us, logs.window.to_us.value_or(all.last_us));
        const std::vector<history> signals = read_vcd(written(write_vcd, all));
        std::map<int, lane_history> threads = read_perfetto(written(write_perfetto, all));
        std::size_t index = 0;
        all.for_each_lane([&](const timing_trace &trace, const lane &lane) {
            const lane_history &wanted = logs.histories[index];
            const lane_history &track = threads[static_cast<int>(all.traces.size() + index + 1)];
            for (std::int64_t time_us = all.first_us; time_us <= all.last_us; ++time_us) {
                const std::int64_t value = value_at(wanted.values, time_us);
                const bool is_pulse = wanted.pulses.contains(time_us);
                if (!is_pulse || !wanted.values.contains(time_us)) { // the end of a level hides a pulse
                    EXPECT_EQ(value_at(signals[index], time_us - all.first_us), is_pulse ? 1 : value)
                        << time_us;
                }
                if (!lane.is_count && time_us >= trace.first_us && time_us < trace.last_us) {
                    EXPECT_EQ(value_at(track.values, time_us - all.first_us) == 1, value == 1) << time_us;
                }
                EXPECT_EQ(track.pulses.count(time_us - all.first_us), wanted.pulses.count(time_us))
                    << time_us;
            }
            ++index;
        });
    }
}

TEST(TimingPicture, LosesNoMark)
{
    for (unsigned seed = 1; seed <= 200 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        random_logs random(seed);
        lane made = {.label = "a", .initial = false}; // of log(time), so that marks are dense and sparse
        const int marks = random.below(200);
        for (int i = 0; i < marks; ++i) {
            const auto time_us = static_cast<std::int64_t>(std::pow(2, random.below(24'000) / 1000.0));
            made.marks.push_back({time_us, 0, static_cast<mark_kind>(random.below(3))});
        }
        timing_trace trace = {.name = "log", .lanes = {made}, .first_us = 0, .last_us = 1 << 24};
        const timeline all = join({std::move(trace)}, {});
        EXPECT_EQ(all.count_marks(), static_cast<std::size_t>(marks));
        const picture seen = read_svg(written(write_svg, all));
        constexpr double left = 16 + 4 * 7.2 + 14;
        bool high = false;
        for (const mark &each : all.traces[0].lanes[0].marks) {
            const double x = left + static_cast<double>(each.time_us) / (1 << 24) * 960;
            const bool is_pulse = each.kind == mark_kind::pulse;
            const bool is_change = !is_pulse && high != (each.kind == mark_kind::high);
            high = is_pulse ? high : each.kind == mark_kind::high;
            EXPECT_TRUE((!is_pulse && !is_change) || is_at(is_pulse ? seen.dots : seen.steps, x) ||
                        std::ranges::any_of(seen.blocks,
                                            [x](const auto &block) {
                                                return x >= block.first - 0.006 && x <= block.second + 0.006;
                                            }))
                << each.time_us;
        }
        EXPECT_LE(seen.blocks.size() * 4, static_cast<std::size_t>(marks)); // only of marks that are close
    }
}

TEST(TimingPicture, ShowsUpToAThousandTexts)
{
    lane quiet = {.label = "pending", .is_count = true, .marks = {{0, 0, mark_kind::count}}};
    lane made = {.label = "bus", .initial = false, .marks = {}, .texts = {}};
    for (std::uint32_t i = 1; i <= 1001; ++i) {
        made.marks.push_back({i / 3 * 300'000, i, mark_kind::pulse}); // more than three would be a block
        made.texts.emplace_back("x");
        const timeline all = join({{.name = "board", .lanes = {quiet, made}, .last_us = 101'000'000}}, {});
        if (i >= 1000) {
            const std::string svg = written(write_svg, all).str();
            EXPECT_EQ(svg.find("<title>") != std::string::npos, i == 1000);
            EXPECT_NE(svg.find(">pending, max 0<"), std::string::npos);
        }
    }
}
