// Timing logs: what an event costs the thread that logs it, and how fast the writer is.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <glib.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "one_core.h"
#include "table.h"
#include "zol/zol.h"

namespace
{

constexpr int pool = 1024;

std::vector<kiv_tl_map_entry> make_map(long lanes)
{
    std::vector<kiv_tl_map_entry> map;
    for (int32_t i = 0; i < lanes; ++i) {
        map.push_back({i, "lane", 0, {}});
    }
    map.push_back({-1, nullptr, 0, {}});
    return map;
}

// A log in the library's directory; it takes the right to write there.
class open_log
{
public:
    open_log(benchmark::State &state, long lanes)
        : map_(make_map(lanes)), log(kiv_tl_init("zol_bench", map_.data()))
    {
        if (log == nullptr) {
            state.SkipWithError("no timing log; run on the virtual board");
        }
    }
    ~open_log()
    {
        if (log != nullptr) {
            kiv_tl_deinit(log);
        }
    }
    open_log(const open_log &) = delete;
    open_log &operator=(const open_log &) = delete;

private:
    std::vector<kiv_tl_map_entry> map_;

public:
    kiv_tl_ctx *log;
};

// The producer's side alone: bursts that the pool holds, while the writer waits for its turn on the same
// core.
constexpr int burst = 500;

void log_burst(kiv_tl_ctx *log)
{
    for (int i = 0; i < burst; ++i) {
        kiv_tl(log, 1, KIV_TL_HIGH, nullptr);
    }
}

// Leaves the core to the writer.
void wait_until_written(kiv_tl_ctx *log)
{
    while (g_async_queue_length(log->available_msgs_queue) < pool) {
        sched_yield();
    }
}

void producer_ours(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    const open_log opened(state, 2);
    log_burst(opened.log); // GLib's own stocks of list nodes are filled by the first ones
    wait_until_written(opened.log);
    const zol_bench::allocation_count allocations;
    for (auto _ : state) {
        log_burst(opened.log);
        state.PauseTiming();
        wait_until_written(opened.log);
        state.ResumeTiming();
    }
    if (allocations.so_far() != 0) {
        state.SkipWithError("kiv_tl allocates");
    }
}

gpointer return_messages(gpointer data)
{
    auto *const queues = static_cast<GAsyncQueue **>(data);
    for (;;) {
        auto *const msg = static_cast<kiv_tl_msg *>(g_async_queue_pop(queues[1]));
        const bool last = msg->event_id == -3;
        g_async_queue_push(queues[0], msg);
        if (last) {
            return nullptr;
        }
    }
}

// A bare queue pop, a look at the clock, a queue push, with a thread that returns what arrives.
void producer_bare(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    GAsyncQueue *queues[] = {g_async_queue_new(), g_async_queue_new()};
    std::vector<kiv_tl_msg> messages(pool);
    for (kiv_tl_msg &message : messages) {
        g_async_queue_push(queues[0], &message);
    }
    GThread *const thread = g_thread_new(nullptr, return_messages, queues);
    const auto log = [&queues](int32_t event_id) {
        auto *const msg = static_cast<kiv_tl_msg *>(g_async_queue_try_pop(queues[0]));
        gettimeofday(&msg->stamp, nullptr);
        msg->event_id = event_id;
        msg->value = KIV_TL_HIGH;
        msg->note[0] = '\0';
        g_async_queue_push(queues[1], msg);
    };
    for (auto _ : state) {
        for (int i = 0; i < burst; ++i) {
            log(1);
        }
        state.PauseTiming();
        while (g_async_queue_length(queues[0]) < pool) {
            g_usleep(50);
        }
        state.ResumeTiming();
    }
    log(-3);
    g_thread_join(thread);
    g_async_queue_unref(queues[0]);
    g_async_queue_unref(queues[1]);
}

void producer_spdlog(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    const auto threads = std::make_shared<spdlog::details::thread_pool>(pool, 1);
    const auto logger =
        std::make_shared<spdlog::async_logger>("bench", std::make_shared<spdlog::sinks::null_sink_mt>(),
                                               threads, spdlog::async_overflow_policy::overrun_oldest);
    for (auto _ : state) {
        for (int i = 0; i < burst; ++i) {
            logger->info("event {} value {}", 1, 2);
        }
        state.PauseTiming();
        while (threads->queue_size() > 0) {
            g_usleep(50);
        }
        state.ResumeTiming();
    }
}

double seconds_of(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double cpu_of_other_threads()
{
    return seconds_of(CLOCK_PROCESS_CPUTIME_ID) - seconds_of(CLOCK_THREAD_CPUTIME_ID);
}

// The writer's processor time, while the bursts wait for it and none is dropped.
constexpr int written_bursts = 200;

void writer_ours(benchmark::State &state)
{
    const open_log opened(state, state.range(0));
    for (auto _ : state) {
        const double before = cpu_of_other_threads();
        for (int i = 0; i < written_bursts; ++i) {
            log_burst(opened.log);
            while (g_async_queue_length(opened.log->available_msgs_queue) < pool) {
                g_usleep(200);
            }
        }
        state.SetIterationTime(cpu_of_other_threads() - before);
    }
}

void print_row(FILE *file, const timeval &time, long lanes, int value, bool with_delta)
{
    std::fprintf(file, "%ld.%06ld,", static_cast<long>(time.tv_sec), static_cast<long>(time.tv_usec));
    for (long lane = 0; lane < lanes; ++lane) {
        if (lane == 1) {
            std::fprintf(file, "%d", value);
        }
        std::fprintf(file, ",");
    }
    if (with_delta) {
        std::fprintf(file, "%ld.%06ld,", 0L, 123L);
    } else {
        std::fprintf(file, ",");
    }
    std::fprintf(file, "\n");
}

// The same rows, with a print per cell, and nothing else: no queues, no second thread.
void writer_fprintf(benchmark::State &state)
{
    for (auto _ : state) {
        const double before = seconds_of(CLOCK_THREAD_CPUTIME_ID);
        FILE *const file = std::fopen("/var/log/zol/zol_bench_bare.csv", "w");
        if (file == nullptr) {
            state.SkipWithError("no file; run on the virtual board");
            break;
        }
        timeval time;
        for (int i = 0; i < written_bursts * burst; ++i) {
            gettimeofday(&time, nullptr);
            print_row(file, time, state.range(0), 2, false);
            print_row(file, time, state.range(0), 3, true);
        }
        std::fclose(file);
        state.SetIterationTime(seconds_of(CLOCK_THREAD_CPUTIME_ID) - before);
    }
}

// A million events at a steady rate, a few at a time. The result is the processor time of all: the producer's calls and
// everything that other threads do.
constexpr int steady_events = 1'000'000;
constexpr int at_a_time = 8;
constexpr double steady_rate = 500'000;

// The producer watches the clock all the time. A writer on its core would have to wait for the end of a time slice.
constexpr int writer_core = 1;

template <typename Log>
double log_steadily(Log log)
{
    const zol_bench::on_one_core pinned;
    using clock = std::chrono::steady_clock;
    constexpr auto interval = std::chrono::nanoseconds(static_cast<long>(at_a_time * 1e9 / steady_rate));
    clock::duration logging{};
    const double others = cpu_of_other_threads();
    clock::time_point due = clock::now();
    for (int logged = 0; logged < steady_events; logged += at_a_time) {
        clock::time_point begin = clock::now();
        for (; begin < due; begin = clock::now()) {
        }
        for (int i = 0; i < at_a_time; ++i) {
            log();
        }
        logging += clock::now() - begin;
        due = std::max(due, begin) + interval; // it does not make up for lost time
    }
    return std::chrono::duration<double>(logging).count() + cpu_of_other_threads() - others;
}

long count_lines(const char *path)
{
    std::ifstream file(path);
    return std::count(std::istreambuf_iterator<char>(file), {}, '\n');
}

constexpr char steady_file[] = "/var/log/zol/zol_bench.csv";

// Drops are counted; a line in the log for each of them would only take more time.
class silent_errors
{
public:
    silent_errors() : former_(dup(STDERR_FILENO))
    {
        const kiv::unique_fd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
        dup2(nowhere.get(), STDERR_FILENO);
    }
    ~silent_errors() { dup2(former_.get(), STDERR_FILENO); }
    silent_errors(const silent_errors &) = delete;
    silent_errors &operator=(const silent_errors &) = delete;

private:
    kiv::unique_fd former_;
};

// Events are dropped when the writer's core is taken away for longer than the pool lasts, 2 ms at this rate. The time is
// that of an event that was written.
void steady_ours(benchmark::State &state)
{
    for (auto _ : state) {
        double seconds = 0;
        {
            const silent_errors silent;
            std::optional<zol_bench::on_one_core> pinned(writer_core);
            const open_log opened(state, 2);
            pinned.reset();
            if (opened.log == nullptr) {
                break;
            }
            seconds = log_steadily([&opened] { kiv_tl(opened.log, 1, KIV_TL_HIGH, nullptr); });
        }
        const long written =
            (count_lines(steady_file) - 3) / 2; // beside the header, the first row and the last
        state.SetIterationTime(seconds / static_cast<double>(written));
        state.counters["dropped"] = static_cast<double>(steady_events - written);
    }
}

// A line of this has as many bytes as two rows of ours.
void steady_spdlog(benchmark::State &state)
{
    constexpr char path[] = "/tmp/zol-bench-steady.log";
    for (auto _ : state) {
        double seconds = 0;
        {
            std::optional<zol_bench::on_one_core> pinned(writer_core);
            const auto threads = std::make_shared<spdlog::details::thread_pool>(pool, 1);
            pinned.reset();
            const auto logger = std::make_shared<spdlog::async_logger>(
                "bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true), threads,
                spdlog::async_overflow_policy::block);
            logger->set_pattern("%E.%f,,%v,%E");
            seconds = log_steadily([&logger] { logger->info("{},{}", 2, 3); });
        }
        state.SetIterationTime(seconds / steady_events);
        if (count_lines(path) != steady_events) {
            state.SkipWithError("events were dropped");
        }
    }
}

void of_each_width(benchmark::internal::Benchmark *benchmark)
{
    benchmark->Arg(1)->Arg(2)->Arg(16)->Arg(64)->Iterations(1)->Repetitions(5)->UseManualTime();
}

void steady(benchmark::internal::Benchmark *benchmark)
{
    benchmark->Iterations(1)->Repetitions(3)->UseManualTime();
}

BENCHMARK(producer_ours)->Name("tl/producer/ours");
BENCHMARK(producer_bare)->Name("tl/producer/bare");
BENCHMARK(producer_spdlog)->Name("tl/producer/spdlog");
BENCHMARK(writer_ours)->Name("tl/writer/ours")->Apply(of_each_width);
BENCHMARK(writer_fprintf)->Name("tl/writer/fprintf")->Apply(of_each_width);
BENCHMARK(steady_ours)->Name("tl/steady/ours")->Apply(steady);
BENCHMARK(steady_spdlog)->Name("tl/steady/spdlog")->Apply(steady);

std::vector<zol_bench::row> timinglog_rows()
{
    std::vector<zol_bench::row> rows = {
        {"500 x kiv_tl : queue pop, clock, queue push", "tl/producer/ours", "tl/producer/bare", 1.1},
        {"500 x kiv_tl : spdlog asynchronous, overrunning", "tl/producer/ours", "tl/producer/spdlog", 0.3},
        {"kiv_tl at 500,000/s, processor time : spdlog asynchronous", "tl/steady/ours", "tl/steady/spdlog",
         1.0},
        {"events dropped of a million at 500,000/s", "tl/steady/ours:dropped", ""}};
    for (const std::string lanes : {"2", "16", "64"}) {
        rows.push_back({"100000 events written, " + lanes + " lanes, cpu : fprintf per cell",
                        "tl/writer/ours/" + lanes, "tl/writer/fprintf/" + lanes, 0.333});
    }
    return rows;
}

const bool added = zol_bench::add_rows(timinglog_rows());

} // namespace
