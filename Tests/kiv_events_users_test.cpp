// Events that are deleted while they are in use, and users that end: cancelled threads and forked children.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "support/own_events.h"
#include "zol/kiv_events.h"
#include "zol/kiv_status.h"

using std::chrono::milliseconds;
using zol_test::bytes_in;
using zol_test::delivered;
using zol_test::eventually;
using zol_test::log_capture;
using zol_test::notify;
using zol_test::notify_aside;
using zol_test::pattern;
using zol_test::pipe_capacity;
using zol_test::repeat;
using zol_test::wait_for;
using zol_test::wait_for_any;
using strings = std::vector<std::string>;

namespace
{

struct EventUsers : testing::Test {
    zol_test::own_events events_;
};

struct {
    kiv_event_item *item;
    std::future<int32_t> queued;
} g_callback;

int32_t delete_itself(void * /*container*/, const void *payload, uint32_t size, uint32_t /*user_arg*/)
{
    g_callback.queued = notify_aside(g_callback.item, "behind it");
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_EQ(kiv_events_delete_event(g_callback.item), KIV_OK);
    return std::string(static_cast<const char *>(payload), size) == "taken" ? 0 : 1;
}

TEST_F(EventUsers, CallbacksMayDeleteTheirEvent)
{
    for (const auto &[payload, status] : {std::pair{"taken", KIV_OK}, {"sent", KIV_ERR_INVALID_PARAM}}) {
        ASSERT_EQ(kiv_events_create_event("door", delete_itself, events_.group(), &g_callback.item), KIV_OK);
        EXPECT_EQ(kiv_events_set_enable_event(g_callback.item, 1), KIV_OK);
        log_capture log;
        EXPECT_EQ(notify(g_callback.item, payload), status);
        EXPECT_EQ(g_callback.queued.get(), KIV_ERR_INVALID_PARAM) << "and the callback is not called again";
        EXPECT_GE(log.texts("ERRR").size(),
                  status == KIV_OK ? 1U : 2U); // one more when the other call came late
        EXPECT_EQ(notify(g_callback.item, payload), KIV_ERR_INVALID_PARAM);
    }
}

TEST_F(EventUsers, DeletionEndsTheCallsInProgress)
{
    log_capture log;
    const long before = zol_test::entries_of("/proc/self/fd");
    kiv_event_item *full = events_.create("full");
    kiv_event_item *const idle = events_.create("idle");
    std::vector<std::future<int32_t>> calls;
    calls.push_back(notify_aside(full, pattern(1 << 20)));
    EXPECT_TRUE(eventually([] { return bytes_in("full") == pipe_capacity; }));
    calls.push_back(notify_aside(full, "behind it"));
    for (const int32_t limit : {zol_test::no_limit, 60'000'000}) {
        calls.push_back(std::async(std::launch::async, [limit] {
            return wait_for_any({"idle", "idle"}, 64, limit)[0].status; // which reports it once
        }));
    }
    std::this_thread::sleep_for(milliseconds(20)); // the calls have begun by now
    EXPECT_EQ(kiv_events_set_enable_event(full, 2), KIV_OK) << "the blocked notifier blocks nothing else";
    EXPECT_EQ(kiv_events_status_dump(), KIV_OK);
    events_.remove(full);
    events_.remove(idle, "idle");
    for (std::future<int32_t> &call : calls) {
        EXPECT_EQ(call.get(), KIV_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(log.count("ERRR", "Event full was deleted during the call"), 2U);
    EXPECT_EQ(log.count("ERRR", "Event idle was deleted during the call"), 2U);
    EXPECT_EQ(log.texts("ERRR").size(), 4U);

    full = events_.create("full");
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(notify(full, pattern(4088)), KIV_OK);
    }
    std::future<int32_t> blocked = notify_aside(full, "short");
    EXPECT_EQ(blocked.wait_for(milliseconds(20)), std::future_status::timeout);
    events_.remove(full, "full");
    EXPECT_EQ(blocked.get(), KIV_ERR_INVALID_PARAM);
    kiv_event_item *const quit = events_.create("quit");
    zol_test::after_next("write", [&] {
        EXPECT_EQ(wait_for("quit"), delivered("now"));
        events_.remove(quit);
    });
    EXPECT_EQ(notify(quit, "now"), KIV_OK) << "it was delivered before the deletion";
    EXPECT_EQ(zol_test::entries_of("/proc/self/fd"), before) << "their pipes are closed";
}

TEST_F(EventUsers, CancelledThreadsLeaveTheEventUsable)
{
    const long before = zol_test::entries_of("/proc/self/fd");
    kiv_event_item *const door = events_.create("door");
    const std::string payload = pattern(4000);
    std::jthread waiter([] { wait_for_any(strings(65, "door"), 64); }); // more than fit on its stack
    std::this_thread::sleep_for(milliseconds(20));                      // it is blocked by now
    EXPECT_EQ(pthread_cancel(waiter.native_handle()), 0);
    waiter.join();
    std::jthread notifier = repeat([&] {
        notify(door, payload);
        pthread_testcancel();
    });
    EXPECT_TRUE(eventually([] { return bytes_in("door") > pipe_capacity - 4096; }));
    EXPECT_EQ(pthread_cancel(notifier.native_handle()), 0);
    EXPECT_EQ(wait_for("door", 4000), delivered(payload));
    notifier.join();
    while (bytes_in("door") > 0) {
        EXPECT_EQ(wait_for("door", 4000), delivered(payload));
    }
    EXPECT_EQ(notify(door, "next"), KIV_OK);
    EXPECT_EQ(wait_for("door"), delivered("next"));
    events_.remove(door);
    static std::atomic<bool> is_whole{false};
    kiv_event_item *const seen =
        events_.create("seen", [](void *, const void *, uint32_t, uint32_t) -> int32_t {
            pthread_testcancel();
            is_whole = true;
            return 0;
        });
    std::jthread([seen] {
        pthread_cancel(pthread_self());
        notify(seen, "x");
    }).join();
    EXPECT_TRUE(is_whole) << "the callback";
    events_.remove(seen);
    EXPECT_EQ(zol_test::entries_of("/proc/self/fd"), before);
}

TEST_F(EventUsers, ForkedChildrenAnswerAtOnce)
{
    kiv_event_item *const door = events_.create("door");
    const std::jthread waiter = repeat([] { wait_for("door", 100'000, 1000); }); // to the end
    const std::jthread creator = repeat([] { zol_test::own_events().create("others"); });
    std::atomic<int> failed{0};
    const std::jthread notifier =
        repeat([door, &failed] { failed += notify(door, pattern(100'000)) == KIV_OK ? 0 : 1; });
    for (int round = 0; round < 100; ++round) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            zol_test::own_events own;
            const bool works = notify(own.create("own"), "hello") == KIV_OK &&
                               wait_for("own") == delivered("hello") &&
                               kiv_events_set_enable_event(door, 0) == KIV_OK &&
                               notify(door, "dropped") == KIV_OK && kiv_events_delete_event(door) == KIV_OK;
            _exit(works ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "14 is the alarm";
    }
    EXPECT_EQ(failed, 0) << "the children have left the pipe alone";
}

} // namespace
