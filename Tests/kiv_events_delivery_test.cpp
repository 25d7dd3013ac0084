// Notification and waiting on several threads: every record arrives whole, once, and in order.

#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/fault_sweep.h"
#include "support/forked.h"
#include "support/log_capture.h"
#include "support/own_events.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_events.h"
#include "zol/kiv_status.h"

using std::chrono::milliseconds;
using zol_test::bytes_in;
using zol_test::delivered;
using zol_test::delivery;
using zol_test::eventually;
using zol_test::log_capture;
using zol_test::nothing;
using zol_test::notify;
using zol_test::notify_aside;
using zol_test::pattern;
using zol_test::pipe_capacity;
using zol_test::repeat;
using zol_test::wait_for;
using zol_test::wait_for_any;
using strings = std::vector<std::string>;
using deliveries = std::vector<delivery>;
using test_clock = std::chrono::steady_clock;

namespace
{

struct EventDelivery : testing::Test {
    zol_test::own_events events_;
};

TEST_F(EventDelivery, DeliversAnyPayloadIntoAnyBuffer)
{
    kiv_event_item *const door = events_.create("door");
    for (const std::size_t size : {0U, 1U, 56U, 64U, 65U, 4088U, 4089U, 65'528U, 1U << 20}) {
        for (const uint32_t room : {0U, 1U, 64U, 1U << 20}) {
            const std::string payload = pattern(size, room);
            std::future<int32_t> sent = notify_aside(door, payload);
            EXPECT_EQ(wait_for("door", room), delivered(payload.substr(0, room))) << size << " into " << room;
            EXPECT_EQ(sent.get(), KIV_OK);
            EXPECT_EQ(notify(door, "next"), KIV_OK);
            EXPECT_EQ(wait_for("door"), delivered("next")) << size << " into " << room;
        }
    }
    const long before = zol_test::allocations();
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(notify(door, pattern(5000)), KIV_OK);
        EXPECT_EQ(wait_for("door", 5000), delivered(pattern(5000)));
    }
    EXPECT_EQ(zol_test::allocations(), before + 1)
        << "the room for 1 MiB was freed, that for 5000 bytes is kept";
}

std::atomic<int> g_interrupts{0};
std::atomic<bool> g_hold{false};

// From now on SIGUSR1 interrupts blocking calls, and holds the thread up while g_hold.
void interrupt_calls()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {
        ++g_interrupts;
        while (g_hold) {
        }
    };
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
}

TEST_F(EventDelivery, KeepsTimeLimits)
{
    g_debugLevel = 3;
    log_capture log;
    kiv_event_item *const door = events_.create("door");
    interrupt_calls();
    std::jthread storm = repeat([waiter = pthread_self()] {
        pthread_kill(waiter, SIGUSR1);
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    });
    for (const auto &[us, ms] : {std::pair{1, 0}, {999, 0}, {50'999, 50}}) {
        const auto start = test_clock::now();
        EXPECT_EQ(wait_for("door", 64, us), nothing);
        EXPECT_GE(test_clock::now() - start, milliseconds(ms));
        EXPECT_LT(test_clock::now() - start, milliseconds(2000));
        EXPECT_TRUE(log.has("INF1", "Timeout waiting for event(s), timeout " + std::to_string(ms)));
    }
    storm = {};
    EXPECT_GT(g_interrupts, 0);
    for (const int32_t no_limit : {0, -1, INT32_MIN}) {
        auto waited = std::async(std::launch::async, [no_limit] { return wait_for("door", 64, no_limit); });
        EXPECT_EQ(waited.wait_for(milliseconds(20)), std::future_status::timeout);
        EXPECT_EQ(notify(door, "at last"), KIV_OK);
        EXPECT_EQ(waited.get(), delivered("at last"));
    }
    EXPECT_EQ(notify(door, "there"), KIV_OK);
    EXPECT_EQ(wait_for("door", 64, 500), delivered("there")) << "it looks, and does not wait";
}

std::atomic<pthread_t> g_notifier;

// Sends a record and holds its notifier up in the middle of it, until g_hold ends. The pages before the record
// leave it a part of the pipe.
std::future<int32_t> notify_held(kiv_event_item *item, const std::string &payload, int pages_before)
{
    const std::string page = pattern(4088);
    interrupt_calls();
    for (int i = 0; i < pages_before; ++i) {
        EXPECT_EQ(notify(item, page), KIV_OK);
    }
    g_hold = true;
    const int before = g_interrupts;
    std::future<int32_t> sent = std::async(std::launch::async, [item, payload] {
        g_notifier = pthread_self();
        return notify(item, payload);
    });
    EXPECT_TRUE(eventually([] { return bytes_in("door") == pipe_capacity; }));
    pthread_kill(g_notifier, SIGUSR1);
    EXPECT_TRUE(eventually([before] { return g_interrupts > before; }));
    for (int i = 0; i < pages_before; ++i) {
        EXPECT_EQ(wait_for("door", 4088), delivered(page));
    }
    return sent;
}

TEST_F(EventDelivery, LongRecordsSurviveTimeouts)
{
    kiv_event_item *const door = events_.create("door");
    kiv_event_item *const gate = events_.create("gate");
    // A long record, and the shortest one that comes in two pieces.
    for (const auto &[size, pages_before] : {std::pair{1U << 20, 0}, {4089U, 15}}) {
        const std::string payload = pattern(size);
        std::future<int32_t> sent = notify_held(door, payload, pages_before);
        EXPECT_EQ(wait_for("door", 1 << 20, 20'000), nothing);
        EXPECT_EQ(bytes_in("door"), 0) << "the part that has come is kept";
        EXPECT_TRUE(zol_test::holds_in_child([door] {
            return notify(door, "own") == KIV_OK && wait_for("door") == delivered("own");
        })) << "neither the lock nor the part is the child's";
        auto patient = std::async(std::launch::async, [] { return wait_for("door", 1 << 20); });
        EXPECT_EQ(wait_for("door", 1 << 20, 20'000), nothing) << "beside a patient waiter";
        EXPECT_EQ(notify(gate, "short"), KIV_OK);
        EXPECT_EQ(wait_for_any({"door", "gate"}, 8), (deliveries{{KIV_OK, 0, ""}, delivered("short")}));
        const auto wait_again = []() -> std::string {
            return wait_for("door", 1 << 20, 1000).status == KIV_OK ? "came in spite of all" : "";
        };
        EXPECT_EQ(zol_test::sweep_faults(wait_again, "poll").complaints, "");
        g_hold = false;
        EXPECT_EQ(sent.get(), KIV_OK);
        EXPECT_EQ(patient.get(), delivered(payload));
        EXPECT_EQ(wait_for("door", 64, 500), nothing);
    }
    const std::future<int32_t> sent = notify_held(door, pattern(4089), 15);
    zol_test::after_next("read", [&sent] {
        g_hold = false;
        sent.wait();
    });
    EXPECT_EQ(wait_for("door", 4089), delivered(pattern(4089)));

    const auto memory_in_use = [] {
        const auto heap = mallinfo2();
        return heap.uordblks + heap.hblkhd;
    };
    const std::size_t before = memory_in_use();
    std::future<int32_t> lost = notify_held(door, pattern(1 << 20), 0);
    EXPECT_EQ(wait_for("door", 1 << 20, 20'000), nothing);
    events_.remove(door);
    g_hold = false;
    EXPECT_EQ(lost.get(), KIV_ERR_INVALID_PARAM);
    const std::string payload = pattern(60'000);
    for (int i = 0; i < 1030; ++i) { // by then all records are used again
        kiv_event_item *const next = events_.create("next");
        EXPECT_EQ(notify(next, payload), KIV_OK);
        EXPECT_EQ(wait_for("next", 60'000), delivered(payload));
        events_.remove(next);
    }
    EXPECT_LT(memory_in_use(), before + (1 << 20)) << "the room of the events has gone with them";
}

TEST_F(EventDelivery, ReportsLongRecordsLostForWantOfMemory)
{
    const char *const array_new = sizeof(std::size_t) == 8 ? "_ZnamRKSt9nothrow_t" : "_ZnajRKSt9nothrow_t";
    const std::string payload = pattern(4089);
    const std::string lost = "No memory for the 4089 bytes that event door was notified with: they are lost";
    for (const bool is_cut : {false, true}) {
        kiv_event_item *const door = events_.create("door");
        EXPECT_EQ(notify(door, payload), KIV_OK); // from here on the notifier needs no memory
        std::string bytes(4097, '\0');
        EXPECT_EQ(read(zol_test::fd_of("door"), bytes.data(), bytes.size()), 4097);
        const auto take = [&]() -> std::string {
            log_capture log;
            if (is_cut) {
                const std::future<int32_t> sent = notify_held(door, payload, 15);
                EXPECT_EQ(wait_for("door", 0, 1000), nothing);
                g_hold = false;
            } else {
                EXPECT_EQ(notify(door, payload), KIV_OK);
            }
            const delivery taken = wait_for("door", 4089);
            const bool is_lost = is_cut && !zol_test::failed_call().empty();
            return taken == (is_lost ? delivery{KIV_OK, 0, ""} : delivered(payload)) &&
                           log.has("ERRR", lost) == is_lost
                       ? ""
                       : "neither whole nor reported";
        };
        const zol_test::sweep_result result = zol_test::sweep_faults(take, array_new);
        EXPECT_EQ(result.complaints, "");
        EXPECT_EQ(result.failures, 1) << "the waiter's room";
        events_.remove(door);
    }
}

TEST_F(EventDelivery, DeliveriesOutweighDeletions)
{
    interrupt_calls();
    for (const auto &[names, reports] :
         {std::pair{strings{"door", "gate"}, 1U}, {{"gate", "door"}, 0U}, {{"door", "door", "gate"}, 1U}}) {
        kiv_event_item *const door = events_.create("door");
        kiv_event_item *const gate = events_.create("gate");
        log_capture log;
        std::atomic<pthread_t> thread{};
        auto waited = std::async(std::launch::async, [&thread, &names = names] {
            thread = pthread_self();
            return wait_for_any(names, 64);
        });
        std::this_thread::sleep_for(milliseconds(20)); // it is blocked by now
        g_hold = true;
        const int before = g_interrupts;
        pthread_kill(thread, SIGUSR1);
        EXPECT_TRUE(eventually([before] { return g_interrupts > before; }));
        events_.remove(door);
        EXPECT_EQ(notify(gate, "open"), KIV_OK);
        g_hold = false;
        const deliveries got = waited.get();
        EXPECT_EQ(std::count(got.begin(), got.end(), delivered("open")), 1);
        EXPECT_EQ(log.count("ERRR", "Event door was deleted during the call"), reports);
        events_.remove(gate);
    }
}

// Signals interrupt all of it. One waiter has the first event for itself. Two others race for the records of the
// other events, and name one of them twice.
TEST_F(EventDelivery, DeliversEveryRecordOnceAndInOrder)
{
    constexpr char notifiers = 4;
    constexpr unsigned records = 150; // of each notifier to each event
    constexpr uint32_t largest = 70'000;
    const strings names = {"red", "green", "blue"};
    const strings waits[] = {{"red"}, {"green", "blue", "blue"}, {"green", "blue", "blue"}};
    const auto record = [&](unsigned event, char notifier, unsigned n) {
        const std::size_t size = n % 50 == 49 ? largest : n % 10 == 9 ? 6000 : 2 + n;
        return names[event][0] + (notifier + pattern(size - 2, n));
    };
    strings expected[2]; // of the first event, of the others
    kiv_event_item *items[3];
    for (unsigned event = 0; event < 3; ++event) {
        items[event] = events_.create(names[event]);
        for (char notifier = 0; notifier < notifiers; ++notifier) {
            for (unsigned n = 0; n < records; ++n) {
                expected[event > 0 ? 1 : 0].push_back(record(event, notifier, n));
            }
        }
    }
    ASSERT_FALSE(HasFailure()) << "an event that is missing would be waited for without end";
    strings got[3];
    std::atomic<unsigned> received{0};
    std::atomic<unsigned> refused{0};
    const auto is_over = [&] { return received + refused == expected[0].size() + expected[1].size(); };
    interrupt_calls();
    log_capture log; // waiters that race for a record say so
    std::vector<std::jthread> threads;
    for (char notifier = 0; notifier < notifiers; ++notifier) {
        threads.emplace_back([&, notifier] {
            for (unsigned i = 0; i < 3 * records; ++i) {
                refused += notify(items[i % 3], record(i % 3, notifier, i / 3)) == KIV_OK ? 0 : 1;
            }
            EXPECT_TRUE(eventually(is_over)) << "signals reach live threads only";
        });
    }
    for (unsigned waiter = 0; waiter < 3; ++waiter) {
        threads.emplace_back([&, waiter] {
            while (!is_over()) {
                for (const delivery &each : wait_for_any(waits[waiter], largest, 5'000)) {
                    if (each.fired != 0) {
                        got[waiter].push_back(each.payload);
                        ++received;
                    }
                }
            }
        });
    }
    while (!is_over()) {
        zol_test::own_events().create("red herring"); // others come and go meanwhile
        EXPECT_EQ(kiv_events_status_dump(), KIV_OK);
        for (std::jthread &thread : threads) {
            pthread_kill(thread.native_handle(), SIGUSR1);
        }
    }
    threads.clear(); // joins them
    EXPECT_EQ(refused, 0U);
    std::stable_sort(got[0].begin(), got[0].end(),
                     [](const std::string &one, const std::string &other) { return one[1] < other[1]; });
    EXPECT_TRUE(got[0] == expected[0]) << "those of one notifier are in order";
    got[1].insert(got[1].end(), got[2].begin(), got[2].end());
    std::sort(got[1].begin(), got[1].end());
    std::sort(expected[1].begin(), expected[1].end());
    EXPECT_TRUE(got[1] == expected[1]);
}

} // namespace
