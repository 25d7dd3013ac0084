// Notifications beside a bare pipe that carries the same records, and beside what else carries a payload from
// one thread to another. Latency is measured there and back between two threads on one core.

#include <benchmark/benchmark.h>
#include <glib.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>
#include <uv.h>
#include <zmq.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "one_core.h"
#include "table.h"
#include "zol/zol.h"

namespace
{

constexpr uint32_t payload_size = 32;
using payload = std::array<char, payload_size>;

constexpr payload ordinary = {'a'};
constexpr payload last = {'z'}; // ends the thread that echoes

void must(bool succeeded)
{
    if (!succeeded) {
        std::abort();
    }
}

// An event of its own group.
class event
{
public:
    explicit event(const std::string &name = "bench") : name_(name)
    {
        must(kiv_events_create_group("bench", &group_) == KIV_OK);
        must(kiv_events_create_event(name_.c_str(), nullptr, group_, &item_) == KIV_OK);
        must(kiv_events_set_enable_event(item_, 1) == KIV_OK);
        must(kiv_events_get_event_fd(name_.c_str(), &fd_) == KIV_OK);
    }
    ~event()
    {
        kiv_events_delete_event(item_);
        kiv_events_delete_group(group_);
    }
    event(const event &) = delete;
    event &operator=(const event &) = delete;

    [[nodiscard]] const char *name() const { return name_.c_str(); }
    [[nodiscard]] int fd() const { return fd_; }
    void send(const payload &data) { kiv_events_notify(item_, data.data(), payload_size, 0); }

    void receive(payload &data)
    {
        kiv_event_wait_entry entry = {name(), 0, data.data(), payload_size, 0};
        must(kiv_events_wait_for(&entry, 1, 0) == KIV_OK && entry.fired == 1);
    }

private:
    std::string name_;
    kiv_event_group *group_ = nullptr;
    kiv_event_item *item_ = nullptr;
    int32_t fd_ = -1;
};

// Two ends that differ, so that events of one benchmark can stand in one process.
struct events_there : event {
    events_there() : event("there") {}
};
struct events_back : event {
    events_back() : event("back") {}
};

struct record {
    uint32_t magic;
    uint32_t size;
    payload data;
};
static_assert(sizeof(record) == 8 + payload_size);

// One write(), one poll(), two read()s.
class bare_pipe
{
public:
    bare_pipe() { must(pipe(ends_) == 0); }
    ~bare_pipe()
    {
        close(ends_[0]);
        close(ends_[1]);
    }
    bare_pipe(const bare_pipe &) = delete;
    bare_pipe &operator=(const bare_pipe &) = delete;

    [[nodiscard]] int fd() const { return ends_[0]; }

    void send(const payload &data)
    {
        const record out = {0xDEADBEEF, payload_size, data};
        must(write(ends_[1], &out, sizeof out) == sizeof out);
    }

    void receive(payload &data)
    {
        pollfd readable = {fd(), POLLIN, 0};
        must(poll(&readable, 1, -1) == 1);
        take(data);
    }

    void take(payload &data)
    {
        uint32_t header[2];
        must(read(fd(), header, sizeof header) == sizeof header);
        must(read(fd(), data.data(), header[1]) == payload_size);
    }

private:
    int ends_[2];
};

// A queue under a mutex: what an eventfd or a loop's wake-up has to be accompanied by.
class guarded_queue
{
public:
    void push(const payload &data)
    {
        const std::lock_guard lock(mutex_);
        queue_.push_back(data);
    }
    bool pop(payload &data)
    {
        const std::lock_guard lock(mutex_);
        if (queue_.empty()) {
            return false;
        }
        data = queue_.front();
        queue_.pop_front();
        return true;
    }

private:
    std::mutex mutex_;
    std::deque<payload> queue_;
};

class eventfd_queue
{
public:
    ~eventfd_queue() { close(fd_); }

    void send(const payload &data)
    {
        queue_.push(data);
        must(eventfd_write(fd_, 1) == 0);
    }
    void receive(payload &data)
    {
        eventfd_t count = 0;
        must(eventfd_read(fd_, &count) == 0 && queue_.pop(data));
    }

private:
    int fd_ = eventfd(0, EFD_CLOEXEC | EFD_SEMAPHORE);
    guarded_queue queue_;
};

class uv_queue
{
public:
    uv_queue()
    {
        uv_loop_init(&loop_);
        uv_async_init(&loop_, &wake_, nullptr);
    }
    ~uv_queue()
    {
        uv_close(reinterpret_cast<uv_handle_t *>(&wake_), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    uv_queue(const uv_queue &) = delete;
    uv_queue &operator=(const uv_queue &) = delete;

    void send(const payload &data)
    {
        queue_.push(data);
        uv_async_send(&wake_);
    }
    void receive(payload &data)
    {
        while (!queue_.pop(data)) {
            uv_run(&loop_, UV_RUN_ONCE);
        }
    }

private:
    uv_loop_t loop_;
    uv_async_t wake_;
    guarded_queue queue_;
};

class glib_context
{
public:
    ~glib_context() { g_main_context_unref(context_); }

    void send(const payload &data)
    {
        g_main_context_invoke_full(context_, G_PRIORITY_DEFAULT, take_in, new delivery{this, data},
                                   [](gpointer sent) { delete static_cast<delivery *>(sent); });
    }
    void receive(payload &data)
    {
        if (!is_acquired_) { // else the sender would be the one to run what it sends
            is_acquired_ = g_main_context_acquire(context_) != FALSE;
        }
        while (!queue_.pop(data)) {
            g_main_context_iteration(context_, TRUE);
        }
    }

private:
    struct delivery {
        glib_context *to;
        payload data;
    };

    static gboolean take_in(gpointer sent)
    {
        const auto *const delivered = static_cast<delivery *>(sent);
        delivered->to->queue_.push(delivered->data);
        return G_SOURCE_REMOVE;
    }

    GMainContext *context_ = g_main_context_new();
    bool is_acquired_ = false;
    guarded_queue queue_;
};

class zmq_pair
{
public:
    zmq_pair() { must(zmq_bind(in_, "inproc://bench") == 0 && zmq_connect(out_, "inproc://bench") == 0); }
    ~zmq_pair()
    {
        zmq_close(in_);
        zmq_close(out_);
        zmq_ctx_destroy(context_);
    }
    zmq_pair(const zmq_pair &) = delete;
    zmq_pair &operator=(const zmq_pair &) = delete;

    void send(const payload &data) { must(zmq_send(out_, data.data(), payload_size, 0) == payload_size); }
    void receive(payload &data) { must(zmq_recv(in_, data.data(), payload_size, 0) == payload_size); }

private:
    void *context_ = zmq_ctx_new();
    void *in_ = zmq_socket(context_, ZMQ_PAIR);
    void *out_ = zmq_socket(context_, ZMQ_PAIR);
};

template <typename There, typename Back = There>
void there_and_back(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    g_debugLevel = 1;
    There there;
    Back back;
    std::thread echo([&] {
        for (payload data = ordinary; data != last;) {
            there.receive(data);
            back.send(data);
        }
    });
    payload data;
    for (auto _ : state) {
        there.send(ordinary);
        back.receive(data);
    }
    there.send(last);
    echo.join();
}

// As much as fits a pipe, and out again in one go.
template <typename Channel>
void nobody_waits(benchmark::State &state)
{
    constexpr int batch = 500;
    g_debugLevel = 1;
    Channel channel;
    std::vector<char> block(batch * sizeof(record));
    channel.send(ordinary); // the first notification may allocate
    must(read(channel.fd(), block.data(), block.size()) == sizeof(record));
    const zol_bench::allocation_count allocations;
    for (auto _ : state) {
        for (int i = 0; i < batch; ++i) {
            channel.send(ordinary);
        }
        must(read(channel.fd(), block.data(), block.size()) == static_cast<ssize_t>(block.size()));
    }
    if (allocations.so_far() != 0) {
        state.SkipWithError("steady notifications allocate");
    }
    state.SetItemsProcessed(state.iterations() * batch);
}

// Two descriptors for each of up to 512 events.
void allow_many_descriptors()
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void wait_ours(benchmark::State &state)
{
    constexpr std::size_t no_allocation_up_to = 64;
    allow_many_descriptors();
    g_debugLevel = 1;
    const auto count = static_cast<std::size_t>(state.range(0));
    std::vector<std::unique_ptr<event>> events;
    std::vector<kiv_event_wait_entry> entries;
    payload data;
    for (std::size_t i = 0; i < count; ++i) {
        events.push_back(std::make_unique<event>("sensor_event_" + std::to_string(i)));
        entries.push_back({events.back()->name(), 0, data.data(), payload_size, 0});
    }
    events.back()->send(ordinary);
    must(kiv_events_wait_for(entries.data(), static_cast<uint32_t>(count), 0) == KIV_OK);
    const zol_bench::allocation_count allocations;
    for (auto _ : state) {
        events.back()->send(ordinary);
        must(kiv_events_wait_for(entries.data(), static_cast<uint32_t>(count), 0) == KIV_OK);
    }
    if (count <= no_allocation_up_to && allocations.so_far() != 0) {
        state.SkipWithError("a wait allocates");
    }
}

void wait_bare(benchmark::State &state)
{
    allow_many_descriptors();
    const auto count = static_cast<std::size_t>(state.range(0));
    std::vector<bare_pipe> pipes(count);
    std::vector<pollfd> fds;
    for (const bare_pipe &each : pipes) {
        fds.push_back({each.fd(), POLLIN, 0});
    }
    payload data;
    for (auto _ : state) {
        pipes.back().send(ordinary);
        must(poll(fds.data(), count, -1) == 1);
        for (std::size_t i = 0; i < count; ++i) {
            if ((fds[i].revents & POLLIN) != 0) {
                pipes[i].take(data);
            }
        }
    }
}

BENCHMARK(there_and_back<events_there, events_back>)->Name("events/latency/ours");
BENCHMARK(there_and_back<bare_pipe>)->Name("events/latency/bare");
BENCHMARK(there_and_back<uv_queue>)->Name("events/latency/uv");
BENCHMARK(there_and_back<glib_context>)->Name("events/latency/glib");
BENCHMARK(there_and_back<zmq_pair>)->Name("events/latency/zmq");
BENCHMARK(there_and_back<eventfd_queue>)->Name("events/latency/eventfd");
BENCHMARK(nobody_waits<event>)->Name("events/notify/ours");
BENCHMARK(nobody_waits<bare_pipe>)->Name("events/notify/bare");
BENCHMARK(wait_ours)->Name("events/wait/ours")->Arg(1)->Arg(8)->Arg(64)->Arg(512);
BENCHMARK(wait_bare)->Name("events/wait/bare")->Arg(1)->Arg(8)->Arg(64)->Arg(512);

const bool added = zol_bench::add_rows({
    {"event there and back, two threads : bare pipe", "events/latency/ours", "events/latency/bare", 1.15},
    {"event there and back, two threads : libuv async", "events/latency/ours", "events/latency/uv"},
    {"event there and back, two threads : GLib invoke", "events/latency/ours", "events/latency/glib"},
    {"event there and back, two threads : ZeroMQ pair", "events/latency/ours", "events/latency/zmq"},
    {"event there and back, two threads : eventfd and queue", "events/latency/ours",
     "events/latency/eventfd"},
    {"500 notifications, nobody waits : bare write", "events/notify/ours", "events/notify/bare", 1.08},
    {"notify and wait for 1 : bare write and poll", "events/wait/ours/1", "events/wait/bare/1", 1.3},
    {"notify and wait for 8 : bare write and poll", "events/wait/ours/8", "events/wait/bare/8", 1.3},
    {"notify and wait for 64 : bare write and poll", "events/wait/ours/64", "events/wait/bare/64", 1.3},
    {"notify and wait for 512 : bare write and poll", "events/wait/ours/512", "events/wait/bare/512", 1.3},
});

} // namespace
