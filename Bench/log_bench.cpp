// Log entries: disabled ones, and enabled ones into a file with one, two and four threads.

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#define SPDLOG_ACTIVE_LEVEL SPDLOG_LEVEL_DEBUG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "table.h"
#include "zol/kiv_debug.h"

namespace
{

// Empties the file at the start of a repetition, so that it stays small and in the page cache.
void start_over(FILE *file)
{
    std::fflush(file);
    if (ftruncate(fileno(file), 0) != 0) {
        std::abort();
    }
    std::rewind(file);
}

void log_to_a_file(const benchmark::State &)
{
    static const bool redirected = std::freopen("/tmp/zol-bench-ours.log", "w", stdout) != nullptr;
    if (!redirected) {
        std::abort();
    }
    start_over(stdout);
    g_debugLevel = 2;
}

void log_disabled(benchmark::State &state)
{
    g_debugLevel = 1;
    int value = 0;
    for (auto _ : state) {
        KIV_LOG_INF1("sensor %d answers with 0x%02x\n", value, 0x5a);
        benchmark::DoNotOptimize(++value);
    }
}

std::shared_ptr<spdlog::logger> spdlog_to_a_file()
{
    // The same content in the same columns.
    static const std::shared_ptr<spdlog::logger> logger = [] {
        auto made = spdlog::basic_logger_mt("bench", "/tmp/zol-bench-spdlog.log", true);
        made->set_pattern("T %E.%e \033[32m[PRNT][   KIV   ]%35!! %4# : \033[0m%v");
        return made;
    }();
    return logger;
}

void log_disabled_spdlog(benchmark::State &state)
{
    const auto logger = spdlog_to_a_file();
    logger->set_level(spdlog::level::info);
    int value = 0;
    for (auto _ : state) {
        SPDLOG_LOGGER_DEBUG(logger, "sensor {} answers with 0x{:02x}", value, 0x5a);
        benchmark::DoNotOptimize(++value);
    }
}

void log_enabled(benchmark::State &state)
{
    int value = 0;
    for (auto _ : state) {
        KIV_LOG_PRNT("sensor %d answers with 0x%02x\n", value++ & 0xff, 0x5a);
    }
}

FILE *g_bare_file;
timeval g_bare_start;
pthread_mutex_t g_bare_mutex = PTHREAD_MUTEX_INITIALIZER;

void open_bare_file(const benchmark::State &)
{
    static FILE *const file = std::fopen("/tmp/zol-bench-bare.log", "w");
    if (file == nullptr) {
        std::abort();
    }
    start_over(file);
    g_bare_file = file;
    gettimeofday(&g_bare_start, nullptr);
}

// A line written by hand: the same bytes, with a time stamp, safe for threads.
void log_bare(benchmark::State &state)
{
    int value = 0;
    for (auto _ : state) {
        timeval now;
        gettimeofday(&now, nullptr);
        pthread_mutex_lock(&g_bare_mutex);
        std::fprintf(
            g_bare_file,
            "T %3ld.%-3ld \033[32m[PRNT][   KIV   ]%35s %4d : \033[0msensor %d answers with 0x%02x\n",
            static_cast<long>(now.tv_sec - g_bare_start.tv_sec), static_cast<long>(now.tv_usec / 1000),
            __func__, __LINE__, value++ & 0xff, 0x5a);
        pthread_mutex_unlock(&g_bare_mutex);
    }
}

void log_spdlog(benchmark::State &state)
{
    const auto logger = spdlog_to_a_file();
    int value = 0;
    for (auto _ : state) {
        SPDLOG_LOGGER_INFO(logger, "sensor {} answers with 0x{:02x}", value++ & 0xff, 0x5a);
    }
}

// A fixed number of lines: the files stay in memory.
constexpr int lines = 40'000;

// Two threads that contend for a lock meet in many ways: it takes many repetitions to see the best of each.
void into_a_file(benchmark::internal::Benchmark *benchmark)
{
    benchmark->Iterations(lines)->ThreadRange(1, 4)->UseRealTime()->Repetitions(40);
}

BENCHMARK(log_disabled)->Name("log/disabled/ours");
BENCHMARK(log_disabled_spdlog)->Name("log/disabled/spdlog");
BENCHMARK(log_enabled)->Name("log/enabled/ours")->Setup(log_to_a_file)->Apply(into_a_file);
BENCHMARK(log_bare)->Name("log/enabled/bare")->Setup(open_bare_file)->Apply(into_a_file);
BENCHMARK(log_spdlog)->Name("log/enabled/spdlog")->Apply(into_a_file);

std::vector<zol_bench::row> log_rows()
{
    std::vector<zol_bench::row> rows = {
        {"disabled log entry : spdlog's disabled macro", "log/disabled/ours", "log/disabled/spdlog"}};
    for (const std::string threads : {"1", "2", "4"}) {
        const std::string suffix = "/threads:" + threads;
        rows.push_back({"log line to a file, " + threads + " threads : fprintf under a mutex",
                        "log/enabled/ours" + suffix, "log/enabled/bare" + suffix, 1.1});
        rows.push_back({"log line to a file, " + threads + " threads : spdlog synchronous",
                        "log/enabled/ours" + suffix, "log/enabled/spdlog" + suffix, 0.65});
    }
    return rows;
}

const bool added = zol_bench::add_rows(log_rows());

} // namespace
