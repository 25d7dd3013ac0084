// How long a message is under way, from the send to the handler: when the worker has waited for it, on one core and
// on all of them, alone and beside a busy thread of the same priority. The bare reader blocks at once; the worker of
// the library may give up the processor first, and must not be later for it.

#include <benchmark/benchmark.h>
#include <glib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "one_core.h"
#include "table.h"
#include "zol/zol.h"

namespace
{

using ticks = std::chrono::steady_clock;

// One message on its way.
struct parcel {
    ticks::time_point sent;
    std::atomic<ticks::rep> under_way{0}; // 0: not yet handled

    void arrive() { under_way = std::max<ticks::rep>((ticks::now() - sent).count(), 1); }
};

int32_t take_parcel(kiv_thread *, kiv_message *message)
{
    if (message->pData != nullptr && message->msgId != KIV_MSG_ID_EXIT) {
        static_cast<parcel *>(message->pData)->arrive();
    }
    return 0;
}

class worker_of_ours
{
public:
    worker_of_ours()
    {
        kiv_thread_params params = {"bench", 1, take_parcel, -1, nullptr};
        if (kiv_thread_create(&thread_, &params) != KIV_OK || kiv_thread_start(&thread_) != KIV_OK) {
            std::abort();
        }
    }
    ~worker_of_ours()
    {
        kiv_thread_stop(&thread_);
        kiv_thread_delete(&thread_);
    }
    worker_of_ours(const worker_of_ours &) = delete;
    worker_of_ours &operator=(const worker_of_ours &) = delete;

    void send(parcel &one)
    {
        kiv_message *const message = kiv_message_new(100, 0);
        message->pData = &one;
        kiv_thread_sendMsg(&thread_, message);
    }

private:
    kiv_thread thread_ = {};
};

class bare_worker
{
public:
    ~bare_worker()
    {
        g_async_queue_push(queue_, this);
        thread_.join();
        g_async_queue_unref(queue_);
    }

    void send(parcel &one) { g_async_queue_push(queue_, &one); }

private:
    void run()
    {
        for (gpointer taken = g_async_queue_pop(queue_); taken != this; taken = g_async_queue_pop(queue_)) {
            static_cast<parcel *>(taken)->arrive();
        }
    }

    GAsyncQueue *queue_ = g_async_queue_new();
    std::thread thread_{[this] { run(); }};
};

// Takes all the time that it can get.
class busy_thread
{
public:
    ~busy_thread()
    {
        is_to_end_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> is_to_end_{false};
    std::thread thread_{[this] {
        while (!is_to_end_) {
            benchmark::ClobberMemory();
        }
    }};
};

constexpr ticks::duration measured_time = std::chrono::milliseconds(400);

template <typename Worker>
std::vector<ticks::rep> send_parcels(std::chrono::microseconds gap)
{
    Worker worker;
    std::vector<ticks::rep> latencies(static_cast<std::size_t>(std::max<long>(measured_time / gap, 250)));
    for (ticks::rep &latency : latencies) {
        std::this_thread::sleep_for(gap);
        parcel one;
        one.sent = ticks::now();
        worker.send(one);
        while (one.under_way == 0) {
            std::this_thread::sleep_for(gap);
        }
        latency = one.under_way;
    }
    std::sort(latencies.begin(), latencies.end());
    return latencies;
}

// The arguments: one core or all, with a busy thread or without, and the time between two messages in us.
template <typename Worker>
void latency(benchmark::State &state)
{
    g_debugLevel = 1;
    std::optional<zol_bench::on_one_core> pinned;
    if (state.range(0) == 1) {
        pinned.emplace();
    }
    std::optional<busy_thread> busy;
    if (state.range(1) == 1) {
        busy.emplace();
    }
    for (auto _ : state) {
        const auto latencies = send_parcels<Worker>(std::chrono::microseconds(state.range(2)));
        state.counters["p50"] = static_cast<double>(latencies[latencies.size() / 2]);
        state.counters["p99"] = static_cast<double>(latencies[(latencies.size() - 1) * 99 / 100]);
    }
}

void in_each_setting(benchmark::internal::Benchmark *benchmark)
{
    benchmark->ArgsProduct({{1, 0}, {0, 1}, {200, 5000}})->Iterations(1)->Repetitions(5);
}

BENCHMARK(latency<worker_of_ours>)->Name("latency/ours")->Apply(in_each_setting);
BENCHMARK(latency<bare_worker>)->Name("latency/bare")->Apply(in_each_setting);

std::vector<zol_bench::row> latency_rows()
{
    std::vector<zol_bench::row> rows;
    for (const auto &[cores, cores_text] : {std::pair{"1", "one core"}, {"0", "all cores"}}) {
        for (const auto &[busy, busy_text] : {std::pair{"0", "idle"}, {"1", "busy"}}) {
            for (const std::string gap : {"200", "5000"}) {
                for (const std::string part : {"p50", "p99"}) {
                    const std::string setting =
                        std::string("/") + cores + "/" + busy + "/" + gap + ":" + part;
                    rows.push_back({"latency " + part + ", " + cores_text + ", " + busy_text + ", every " +
                                        gap + " us : bare queue",
                                    "latency/ours" + setting, "latency/bare" + setting,
                                    part == "p50" ? 1.1 : 0});
                }
            }
        }
    }
    return rows;
}

const bool added = zol_bench::add_rows(latency_rows());

} // namespace
