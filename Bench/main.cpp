// Runs all benchmarks, interleaved and repeated, and prints the table of their ratios.
//
// Of the repetitions of a benchmark the fastest counts: what disturbs a run on a shared machine only ever
// adds time, so the minimum is what comes back in the next run, where the mean does not.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "table.h"

namespace
{

std::vector<zol_bench::row> &rows()
{
    static std::vector<zol_bench::row> all;
    return all;
}

// Operations of which the throughput is shown: those that a benchmark makes in one iteration, on one core, with both sides of
// the operation, and the virtual board where there is one.
constexpr struct {
    const char *what;
    const char *benchmark;
    double operations;
} throughputs[] = {
    {"log lines to a file", "log/enabled/ours/threads:1", 1},
    {"asynchronous messages, sent and handled", "thread/async/ours", 1000},
    {"synchronous messages", "thread/sync/ours", 1},
    {"events, notified and received", "events/wait/ours/1", 1},
    {"events of a timing log, written with 16 lanes", "tl/writer/ours/16", 100'000},
    {"levels read from a real sysfs", "gpio/sysfs/ours/1", 1},
    {"I2C register reads on the virtual board", "i2c/read/ours", 1},
    {"interrupts raised on the virtual board and called back", "gpio/burst/ours/1000", 1000},
};

// The program's standard output is where the library logs to, so the table goes to a copy of the original
// one.
class table_reporter : public benchmark::BenchmarkReporter
{
public:
    explicit table_reporter(FILE *out) : out_(out) {}

    bool ReportContext(const Context &) override { return true; }

    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.error_occurred) {
                std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
                failed_ = true;
            } else if (run.run_type == Run::RT_Iteration) {
                note(run);
            }
        }
    }

    void print_table()
    {
        std::fprintf(out_, "%-58s %12s %12s %7s %7s  %s\n", "what, in ns", "ours", "peer", "ratio", "goal",
                     "");
        for (const zol_bench::row &row : rows()) {
            print_row(row);
        }
        print_throughputs();
        std::fflush(out_);
    }

    [[nodiscard]] bool failed() const { return failed_; }

private:
    void note(const Run &run)
    {
        std::string name = run.run_name.function_name;
        for (const std::string &part : {run.run_name.args, run.run_name.threads}) {
            name += part.empty() ? "" : "/" + part;
        }
        note(name, run.GetAdjustedRealTime());
        for (const auto &[counter, value] : run.counters) {
            note(name + ":" + counter, value);
        }
    }

    void note(const std::string &name, double time)
    {
        const auto [found, is_new] = fastest_.emplace(name, time);
        found->second = is_new ? time : std::min(found->second, time);
    }

    void print_row(const zol_bench::row &row)
    {
        const auto ours = fastest_.find(row.ours);
        if (ours == fastest_.end()) {
            return; // not in this run
        }
        const auto peer = fastest_.find(row.peer);
        if (peer == fastest_.end()) {
            std::fprintf(out_, "%-58s %12.1f\n", row.what.c_str(), ours->second);
            return;
        }
        const double ratio = ours->second / peer->second;
        std::fprintf(out_, "%-58s %12.1f %12.1f %7.3f", row.what.c_str(), ours->second, peer->second, ratio);
        if (row.goal > 0) {
            std::fprintf(out_, " %7.2f  %s", row.goal, ratio <= row.goal ? "met" : "NOT MET");
        }
        std::fprintf(out_, "\n");
    }

    void print_throughputs()
    {
        std::fprintf(out_, "\n%-58s %12s\n", "throughput of one core", "per second");
        for (const auto &[what, benchmark, operations] : throughputs) {
            if (const auto found = fastest_.find(benchmark); found != fastest_.end()) {
                std::fprintf(out_, "%-58s %12.0f\n", what, operations * 1e9 / found->second);
            }
        }
    }

    FILE *out_;
    std::map<std::string, double> fastest_;
    bool failed_ = false;
};

} // namespace

bool zol_bench::add_rows(std::vector<row> more)
{
    rows().insert(rows().end(), more.begin(), more.end());
    return true;
}

int main(int argc, char **argv)
{
    std::vector<char *> arguments(argv, argv + argc);
    std::string defaults[] = {"--benchmark_repetitions=15", "--benchmark_enable_random_interleaving=true",
                              "--benchmark_min_time=0.05"};
    for (std::string &option : defaults) {
        arguments.insert(arguments.begin() + 1, option.data()); // before the caller's, which therefore win
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    FILE *const out = fdopen(dup(STDOUT_FILENO), "w");
    FILE *const log = std::freopen("/dev/null", "w", stdout);
    if (out == nullptr || log == nullptr) {
        std::perror("zol_bench");
        return 1;
    }
    table_reporter reporter(out);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_table();
    return reporter.failed() ? 1 : 0;
}
