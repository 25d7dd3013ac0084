// Timing logs: what an event costs the thread that logs it, and how fast the writer is.

#include <benchmark/benchmark.h>
#include <glib.h>
#include <spdlog/async.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

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
    const unsigned long before = zol_bench::allocations();
    for (auto _ : state) {
        log_burst(opened.log);
        state.PauseTiming();
        wait_until_written(opened.log);
        state.ResumeTiming();
    }
    if (zol_bench::allocations() != before) {
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

// What the writer can sustain: bursts wait for it, none is dropped, and the clock runs while it has the core
// alone.
constexpr int written_bursts = 200;

void writer_ours(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    const open_log opened(state, state.range(0));
    for (auto _ : state) {
        for (int i = 0; i < written_bursts; ++i) {
            state.PauseTiming();
            log_burst(opened.log);
            state.ResumeTiming();
            wait_until_written(opened.log);
        }
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
    const zol_bench::on_one_core pinned;
    for (auto _ : state) {
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
    }
}

void of_each_width(benchmark::internal::Benchmark *benchmark)
{
    benchmark->Arg(2)->Arg(16)->Arg(64)->Iterations(1)->Repetitions(5)->Unit(benchmark::kNanosecond);
}

BENCHMARK(producer_ours)->Name("tl/producer/ours");
BENCHMARK(producer_bare)->Name("tl/producer/bare");
BENCHMARK(producer_spdlog)->Name("tl/producer/spdlog");
BENCHMARK(writer_ours)->Name("tl/writer/ours")->Apply(of_each_width);
BENCHMARK(writer_fprintf)->Name("tl/writer/fprintf")->Apply(of_each_width);

std::vector<zol_bench::row> timinglog_rows()
{
    std::vector<zol_bench::row> rows = {
        {"500 x kiv_tl : queue pop, clock, queue push", "tl/producer/ours", "tl/producer/bare", 1.1},
        {"500 x kiv_tl : spdlog asynchronous, overrunning", "tl/producer/ours", "tl/producer/spdlog"}};
    for (const std::string lanes : {"2", "16", "64"}) {
        rows.push_back({"100000 events written, " + lanes + " lanes : fprintf per cell",
                        "tl/writer/ours/" + lanes, "tl/writer/fprintf/" + lanes, 0.333});
    }
    return rows;
}

const bool added = zol_bench::add_rows(timinglog_rows());

} // namespace
