// The cost of an operation while there is more and more of what it works on. The operation uses the oldest one, which a
// list would find last. Scripts/bench.sh draws the rows as a picture.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

#include "one_core.h"
#include "started_library.h"
#include "table.h"
#include "zol/zol.h"

namespace
{

constexpr int payload = 42;

// An ordinary user may be permitted fewer descriptors than 8,000 events take.
bool may_open(rlim_t descriptors)
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max(limit.rlim_cur, descriptors);
    limit.rlim_max = std::max(limit.rlim_max, descriptors);
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

class events
{
public:
    explicit events(benchmark::State &state)
    {
        const auto count = static_cast<std::size_t>(state.range(0));
        kiv_events_create_group("scale", &group_);
        for (items_.resize(count); made_ < count; ++made_) {
            const std::string name = "event " + std::to_string(made_);
            if (kiv_events_create_event(name.c_str(), nullptr, group_, &items_[made_]) != KIV_OK) {
                state.SkipWithError("an event cannot be made");
                return;
            }
        }
        kiv_events_set_enable_event(items_[0], 1);
    }
    ~events()
    {
        while (made_ > 0) {
            kiv_events_delete_event(items_[--made_]);
        }
        kiv_events_delete_group(group_);
    }
    events(const events &) = delete;
    events &operator=(const events &) = delete;

    [[nodiscard]] kiv_event_item *oldest() const { return items_[0]; }

private:
    kiv_event_group *group_ = nullptr;
    std::vector<kiv_event_item *> items_;
    std::size_t made_ = 0;
};

void notify_and_wait(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    if (!may_open(2 * static_cast<rlim_t>(state.range(0)) + 100)) {
        state.SkipWithError("too few descriptors are permitted");
        return;
    }
    const zol_bench::started_library library("/dev/i2c-4");
    const events all(state);
    int received = 0;
    for (auto _ : state) {
        kiv_event_wait_entry entry = {"event 0", 0, &received, sizeof received, 0};
        kiv_events_notify(all.oldest(), &payload, sizeof payload, 0);
        if (kiv_events_wait_for(&entry, 1, 1'000'000) != KIV_OK) {
            state.SkipWithError("a record is lost");
            break;
        }
    }
}

int32_t handle(kiv_thread *, kiv_message *)
{
    return 0;
}

void send_and_wait(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    std::vector<kiv_thread> workers(static_cast<std::size_t>(state.range(0)));
    for (kiv_thread &worker : workers) {
        worker = {};
        kiv_thread_create_default(&worker, "scale", handle, nullptr);
    }
    for (auto _ : state) {
        kiv_message *const message = kiv_message_new(100, 0);
        message->isSync = 1;
        if (kiv_thread_sendMsg(&workers[0], message) != KIV_OK) {
            state.SkipWithError("a message is refused");
            break;
        }
    }
    for (kiv_thread &worker : workers) {
        kiv_thread_stop(&worker);
        kiv_thread_delete(&worker);
    }
}

// Adds a row for each size of a benchmark.
void add(std::vector<zol_bench::row> &rows, const std::string &what, const std::string &name,
         std::initializer_list<int> sizes)
{
    for (const int size : sizes) {
        rows.push_back(
            {"scale, " + what + ": " + std::to_string(size), name + "/" + std::to_string(size), ""});
    }
}

// Pins and lanes are measured beside their peers already.
std::vector<zol_bench::row> scale_rows()
{
    std::vector<zol_bench::row> rows;
    add(rows, "level of a real sysfs read, pins", "gpio/sysfs/ours", {1, 16, 256});
    add(rows, "notify and wait, events", "scale/events", {1, 10, 100, 1000, 8000});
    add(rows, "synchronous send, workers", "scale/workers", {1, 4, 16, 64});
    add(rows, "100000 events written, lanes", "tl/writer/ours", {1, 2, 16, 64});
    return rows;
}

BENCHMARK(notify_and_wait)->Name("scale/events")->RangeMultiplier(10)->Range(1, 8000);
BENCHMARK(send_and_wait)->Name("scale/workers")->RangeMultiplier(4)->Range(1, 64);

const bool added = zol_bench::add_rows(scale_rows());

} // namespace
