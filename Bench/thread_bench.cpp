// Messages through a worker, beside a bare GLib queue and thread, and beside what else one would post work
// with. On one core, but for the rows that say otherwise. An asynchronous send is measured in batches: sent, and all of them handled.

#include <benchmark/benchmark.h>
#include <glib.h>
#include <pthread.h>
#include <uv.h>

#include <asio.hpp>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "one_core.h"
#include "table.h"
#include "zol/zol.h"

namespace
{

constexpr int batch = 1000;
constexpr int32_t message_id = 100;

int32_t handle(kiv_thread *, kiv_message *)
{
    return 0;
}

class worker
{
public:
    worker()
    {
        g_debugLevel = 1;
        kiv_thread_params params = {"bench", 1, handle, -1, nullptr};
        if (kiv_thread_create(&thread_, &params) != KIV_OK || kiv_thread_start(&thread_) != KIV_OK) {
            std::abort();
        }
    }
    ~worker()
    {
        kiv_thread_stop(&thread_);
        kiv_thread_delete(&thread_);
    }
    worker(const worker &) = delete;
    worker &operator=(const worker &) = delete;

    void send(bool sync)
    {
        kiv_message *const message = kiv_message_new(message_id, 0);
        message->isSync = sync ? 1 : 0;
        kiv_thread_sendMsg(&thread_, message);
    }

private:
    kiv_thread thread_ = {};
};

enum class cores { one, all };

class placed
{
public:
    explicit placed(cores on)
    {
        if (on == cores::one) {
            pinned_.emplace();
        }
    }

private:
    std::optional<zol_bench::on_one_core> pinned_;
};

template <cores on>
void async_ours(benchmark::State &state)
{
    const placed here(on);
    worker to;
    for (auto _ : state) {
        for (int i = 1; i < batch; ++i) {
            to.send(false);
        }
        to.send(true);
    }
}

// The barrier at the end of a batch, for all the peers.
class meeting_point
{
public:
    meeting_point() { pthread_barrier_init(&barrier_, nullptr, 2); }
    ~meeting_point() { pthread_barrier_destroy(&barrier_); }
    meeting_point(const meeting_point &) = delete;
    meeting_point &operator=(const meeting_point &) = delete;

    void meet() { pthread_barrier_wait(&barrier_); }

private:
    pthread_barrier_t barrier_;
};

enum class order { work, meet, end };

struct bare_message {
    order what;
    char rest[sizeof(kiv_message) - sizeof(order)];
};

bare_message *make(order what)
{
    auto *const message = static_cast<bare_message *>(std::calloc(1, sizeof(bare_message)));
    message->what = what;
    return message;
}

struct bare_worker {
    GAsyncQueue *queue = g_async_queue_new();
    meeting_point point;
};

gpointer drain(gpointer data)
{
    auto *const self = static_cast<bare_worker *>(data);
    for (;;) {
        auto *const message = static_cast<bare_message *>(g_async_queue_pop(self->queue));
        const order what = message->what;
        std::free(message);
        if (what == order::meet) {
            self->point.meet();
        } else if (what == order::end) {
            return nullptr;
        }
    }
}

void async_bare(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    bare_worker to;
    GThread *const thread = g_thread_new(nullptr, drain, &to);
    for (auto _ : state) {
        for (int i = 1; i < batch; ++i) {
            g_async_queue_push(to.queue, make(order::work));
        }
        g_async_queue_push(to.queue, make(order::meet));
        to.point.meet();
    }
    g_async_queue_push(to.queue, make(order::end));
    g_thread_join(thread);
    g_async_queue_unref(to.queue);
}

template <cores on>
void async_asio(benchmark::State &state)
{
    const placed here(on);
    asio::io_context context;
    auto work = asio::make_work_guard(context);
    meeting_point point;
    int handled = 0;
    std::thread thread([&context] { context.run(); });
    for (auto _ : state) {
        for (int i = 1; i < batch; ++i) {
            asio::post(context, [&handled] { benchmark::DoNotOptimize(++handled); });
        }
        asio::post(context, [&point] { point.meet(); });
        point.meet();
    }
    work.reset();
    thread.join();
}

// A queue that an asynchronous wake-up of a libuv loop drains.
struct uv_worker {
    uv_loop_t loop;
    uv_async_t wake;
    std::mutex mutex;
    std::vector<order> queue;
    meeting_point point;

    void post(order what)
    {
        {
            const std::lock_guard lock(mutex);
            queue.push_back(what);
        }
        uv_async_send(&wake);
    }

    static void on_wake(uv_async_t *handle)
    {
        auto *const self = static_cast<uv_worker *>(handle->data);
        std::vector<order> taken;
        {
            const std::lock_guard lock(self->mutex);
            taken.swap(self->queue);
        }
        for (const order what : taken) {
            if (what == order::meet) {
                self->point.meet();
            } else if (what == order::end) {
                uv_close(reinterpret_cast<uv_handle_t *>(handle), nullptr);
            }
        }
    }
};

void async_uv(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    uv_worker to;
    uv_loop_init(&to.loop);
    uv_async_init(&to.loop, &to.wake, uv_worker::on_wake);
    to.wake.data = &to;
    std::thread thread([&to] { uv_run(&to.loop, UV_RUN_DEFAULT); });
    for (auto _ : state) {
        for (int i = 1; i < batch; ++i) {
            to.post(order::work);
        }
        to.post(order::meet);
        to.point.meet();
    }
    to.post(order::end);
    thread.join();
    uv_loop_close(&to.loop);
}

void sync_ours(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    worker to;
    for (auto _ : state) {
        to.send(true);
    }
}

// There and back between two threads, which is what a synchronous send must take: the message wakes the
// worker, and the worker the sender.
void sync_bare(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    meeting_point there;
    meeting_point back;
    bool ended = false;
    std::thread thread([&] {
        for (;;) {
            there.meet();
            if (ended) {
                return;
            }
            back.meet();
        }
    });
    for (auto _ : state) {
        there.meet();
        back.meet();
    }
    ended = true;
    there.meet();
    thread.join();
}

void allocations_of_a_message(benchmark::State &state)
{
    for (auto _ : state) {
        const zol_bench::allocation_count allocations;
        kiv_message_free(kiv_message_new(message_id, 100));
        if (allocations.so_far() != 1) {
            state.SkipWithError("a message takes one allocation");
            break;
        }
    }
}

void allocations_of_an_idle_worker(benchmark::State &state)
{
    kiv_thread thread = {};
    kiv_thread_params params = {"idle", 1, handle, 100, nullptr};
    kiv_thread_create(&thread, &params);
    kiv_thread_start(&thread);
    kiv_thread_sleep(10'000);
    const zol_bench::allocation_count allocations;
    for (auto _ : state) {
        kiv_thread_sleep(10'000); // about a hundred time-outs
    }
    if (allocations.so_far() != 0) {
        state.SkipWithError("an idle worker allocates");
    }
    kiv_thread_stop(&thread);
    kiv_thread_delete(&thread);
}

BENCHMARK(async_ours<cores::one>)->Name("thread/async/ours");
BENCHMARK(async_ours<cores::all>)->Name("thread/async/all/ours")->UseRealTime();
BENCHMARK(async_bare)->Name("thread/async/bare");
BENCHMARK(async_asio<cores::one>)->Name("thread/async/asio");
BENCHMARK(async_asio<cores::all>)->Name("thread/async/all/asio")->UseRealTime();
BENCHMARK(async_uv)->Name("thread/async/uv");
BENCHMARK(sync_ours)->Name("thread/sync/ours");
BENCHMARK(sync_bare)->Name("thread/sync/bare");
BENCHMARK(allocations_of_a_message)->Name("thread/allocations/message")->Iterations(1000);
BENCHMARK(allocations_of_an_idle_worker)->Name("thread/allocations/idle")->Iterations(3);

const bool added = zol_bench::add_rows({
    {"1000 asynchronous sends, handled : bare queue and thread", "thread/async/ours", "thread/async/bare",
     1.15},
    {"1000 asynchronous sends, handled : Asio post", "thread/async/ours", "thread/async/asio", 0.65},
    {"the same on all cores : Asio post", "thread/async/all/ours", "thread/async/all/asio", 0.8},
    {"1000 asynchronous sends, handled : libuv async and a queue", "thread/async/ours", "thread/async/uv"},
    {"synchronous send : two barrier waits", "thread/sync/ours", "thread/sync/bare", 0.65},
});

} // namespace
