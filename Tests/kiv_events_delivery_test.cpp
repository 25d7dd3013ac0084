// Notification and waiting: what is sent arrives, whole, once, and in order.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/unique_fd.h"
#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "support/own_events.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_events.h"
#include "zol/kiv_status.h"

using std::chrono::milliseconds;
using zol_test::bytes_in;
using zol_test::delivery;
using zol_test::eventually;
using zol_test::log_capture;
using zol_test::notify;
using zol_test::pattern;
using zol_test::printed;
using zol_test::wait_for;
using strings = std::vector<std::string>;
using test_clock = std::chrono::steady_clock;

namespace
{

constexpr int pipe_capacity = 65'536;

delivery delivered(const std::string &payload)
{
    return {KIV_OK, 1, payload};
}

const delivery nothing = {KIV_ERR_TIMEOUT, 0, ""};

std::future<int32_t> notify_aside(kiv_event_item *item, const std::string &payload)
{
    return std::async(std::launch::async, [item, payload] { return notify(item, payload); });
}

class EventDelivery : public testing::Test
{
protected:
    zol_test::own_events events_;
};

TEST_F(EventDelivery, RecordsByteForByte)
{
    g_debugLevel = 3;
    log_capture log;
    kiv_event_item *const door = events_.create("door");
    const int fd = zol_test::fd_of("door");
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    pollfd readable = {fd, POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, 0), 0);
    for (const std::size_t size : {20U, 10U, 0U, 60'000U}) {
        const std::string payload = pattern(size);
        EXPECT_EQ(notify(door, payload), KIV_OK);
        EXPECT_EQ(zol_test::fd_of("door"), fd);
        EXPECT_EQ(poll(&readable, 1, 0), 1);
        std::string record(size + 100, '\0');
        const ssize_t got = read(fd, record.data(), record.size());
        ASSERT_EQ(got, static_cast<ssize_t>(size + 8));
        const uint32_t header[] = {0xDEADBEEF, static_cast<uint32_t>(size)};
        EXPECT_EQ(std::memcmp(record.data(), header, sizeof header), 0);
        EXPECT_EQ(record.substr(8, size), payload);
    }
    EXPECT_TRUE(log.has("INF1", "Allocating 28 bytes (prev container sz 0 bytes)"));
    EXPECT_TRUE(log.has("INF1", "Allocating 60008 bytes (prev container sz 28 bytes)")) << "and no other";
    EXPECT_TRUE(log.has("INF1", printed("event door, fd %d", fd)));
}

TEST_F(EventDelivery, DisabledEventsDropNotifications)
{
    g_debugLevel = 3;
    log_capture log;
    kiv_event_item *door = nullptr;
    ASSERT_EQ(kiv_events_create_event("door", nullptr, events_.group(), &door), KIV_OK);
    EXPECT_EQ(notify(door, "not enabled yet"), KIV_OK);
    for (const int32_t enable : {0, -5, 0}) {
        EXPECT_EQ(kiv_events_set_enable_event(door, enable), KIV_OK);
        EXPECT_EQ(notify(door, printed("enabled by %d", enable)), KIV_OK);
    }
    EXPECT_EQ(wait_for("door"), delivered("enabled by -5"));
    EXPECT_EQ(bytes_in("door"), 0);
    EXPECT_EQ(log.count("INF1", "Dropping notification since the event is not enabled yet 0"), 3U);
    EXPECT_EQ(kiv_events_delete_event(door), KIV_OK);
}

// What the callback saw, and what it is to answer.
struct {
    kiv_event_item *item;
    strings containers; // "null", or the payload there
    std::string payload;
    uint32_t user_arg;
    int32_t answer;
    bool is_to_echo;
} g_callback;

int32_t see(void *container, const void *payload, uint32_t size, uint32_t user_arg)
{
    const auto *const record = static_cast<const char *>(container);
    uint32_t length = 0;
    if (record != nullptr) {
        std::memcpy(&length, record + 4, sizeof length);
    }
    g_callback.containers.push_back(record != nullptr ? std::string(record + 8, length) : "null");
    g_callback.payload.assign(static_cast<const char *>(payload), size);
    g_callback.user_arg = user_arg;
    if (std::exchange(g_callback.is_to_echo, false)) {
        g_callback.answer = 1;
        return kiv_events_notify(g_callback.item, "its own", 7, 1) == KIV_OK ? 0 : -1;
    }
    return g_callback.answer;
}

TEST_F(EventDelivery, CallbacksTakeNotificationsOverOrPassThemOn)
{
    g_callback.item = events_.create("seen", see);
    const auto notified = [](const std::string &text, int32_t answer) {
        g_callback.answer = answer;
        EXPECT_EQ(kiv_events_notify_by_name("seen", text.data(), static_cast<uint32_t>(text.size()), 4711),
                  KIV_OK);
        EXPECT_EQ(g_callback.payload, text);
    };
    notified("taken", 0);
    EXPECT_EQ(g_callback.user_arg, 4711U);
    EXPECT_EQ(bytes_in("seen"), 0);
    notified("longer", 1);
    notified("short", -1);
    notified("taken again", 0);
    g_callback.is_to_echo = true;
    EXPECT_EQ(notify(g_callback.item, "echo"), KIV_OK);
    for (const char *text : {"longer", "short", "its own"}) {
        EXPECT_EQ(wait_for("seen"), delivered(text));
    }
    EXPECT_EQ(bytes_in("seen"), 0);
    EXPECT_EQ(kiv_events_set_enable_event(g_callback.item, 0), KIV_OK);
    EXPECT_EQ(notify(g_callback.item, "dropped"), KIV_OK);
    EXPECT_EQ(g_callback.containers, (strings{"null", "null", "longer", "short", "short", "short"}));
}

TEST_F(EventDelivery, AnyPayloadIntoAnyBuffer)
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
}

TEST_F(EventDelivery, OneRecordOfEachEventPerWait)
{
    kiv_event_item *const a = events_.create("a");
    events_.create("silent");
    EXPECT_EQ(notify(events_.create("b"), "b1"), KIV_OK);
    for (const std::string number : {"1", "2", "3"}) {
        EXPECT_EQ(notify(a, "a" + number), KIV_OK);
    }
    for (const std::string number : {"1", "2", "3"}) {
        std::string text[3] = {"????", "????", "????"};
        kiv_event_wait_entry entries[] = {{"a", 0, text[0].data(), 4, 55},
                                          {"silent", 0, text[1].data(), 4, 55},
                                          {"b", 0, text[2].data(), 4, 55}};
        ASSERT_EQ(kiv_events_wait_for(entries, 3, zol_test::no_limit), KIV_OK);
        const bool is_first = number == "1";
        EXPECT_TRUE(entries[0].fired == 1 && entries[1].fired == 0 && entries[2].fired == (is_first ? 1 : 0));
        EXPECT_TRUE(entries[0].actual_sz == 2 && entries[1].actual_sz == 55);
        EXPECT_EQ(text[0] + text[1] + text[2], "a" + number + (is_first ? "??????b1??" : "??????????"));
    }
}

TEST_F(EventDelivery, BadArgumentsTakeNothing)
{
    kiv_event_item *const door = events_.create("door");
    EXPECT_EQ(notify(door, "kept"), KIV_OK);
    char text[8];
    log_capture log;
    for (const char *unknown : {"nobody", static_cast<const char *>(nullptr)}) {
        kiv_event_wait_entry entries[] = {{"door", 0, text, 8, 0}, {unknown, 0, text, 8, 0}};
        EXPECT_EQ(kiv_events_wait_for(entries, 2, zol_test::no_limit), KIV_ERR_INVALID_PARAM);
        EXPECT_EQ(entries[0].fired, 0);
    }
    const strings twice = {"Event item is null", "Invalid event item handle", "Event item is null",
                           "Invalid event item handle"};
    EXPECT_EQ(log.texts("ERRR"), twice);
    kiv_event_wait_entry entry = {"door", 0, nullptr, 8, 0};
    int32_t fd = -7;
    const int32_t refused[] = {kiv_events_wait_for(&entry, 1, 0),
                               kiv_events_wait_for(&entry, 0, 0),
                               kiv_events_wait_for(nullptr, UINT32_MAX, 0),
                               kiv_events_notify(door, nullptr, 1, 0),
                               kiv_events_notify(door, text, UINT32_MAX - 7, 0),
                               kiv_events_notify(door, text, UINT32_MAX, 0),
                               kiv_events_get_event_fd(nullptr, &fd),
                               kiv_events_get_event_fd("door", nullptr),
                               kiv_events_get_event_fd("nobody", &fd)};
    for (const int32_t status : refused) {
        EXPECT_EQ(status, KIV_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(fd, -7);
    EXPECT_EQ(log.texts("ERRR").size(), twice.size() + std::size(refused) + 1U) << "the last says two things";
    EXPECT_TRUE(log.has("ERRR", "Trying to get the fd for event 'NULL'."));
    EXPECT_TRUE(log.has("ERRR", "Invalid output container."));
    EXPECT_EQ(wait_for("door"), delivered("kept"));
}

TEST_F(EventDelivery, TimeLimits)
{
    g_debugLevel = 3;
    log_capture log;
    kiv_event_item *const door = events_.create("door");
    for (const auto &[us, ms] : {std::pair{1, 0}, {999, 0}, {50'999, 50}}) {
        const auto start = test_clock::now();
        EXPECT_EQ(wait_for("door", 64, us), nothing);
        EXPECT_GE(test_clock::now() - start, milliseconds(ms));
        EXPECT_TRUE(log.has("INF1", printed("Timeout waiting for event(s), timeout %d", ms)));
    }
    for (const int32_t no_limit : {0, -1, INT32_MIN}) {
        auto waited = std::async(std::launch::async, [no_limit] { return wait_for("door", 64, no_limit); });
        EXPECT_EQ(waited.wait_for(milliseconds(20)), std::future_status::timeout);
        EXPECT_EQ(notify(door, "at last"), KIV_OK);
        EXPECT_EQ(waited.get(), delivered("at last"));
    }
    EXPECT_EQ(notify(door, "there"), KIV_OK);
    EXPECT_EQ(wait_for("door", 64, 500), delivered("there"));
}

TEST_F(EventDelivery, ALongRecordNeedsNoRoomWhereOneWaitTakesItAll)
{
    kiv_event_item *const door = events_.create("door");
    EXPECT_EQ(notify(door, pattern(5000)), KIV_OK); // from here on the notifier needs no memory
    const auto take_and_refill = [door]() -> std::string {
        const bool is_whole = wait_for("door", 5000) == delivered(pattern(5000));
        return is_whole && notify(door, pattern(5000)) == KIV_OK ? "" : "lost";
    };
    const char *const array_new = sizeof(std::size_t) == 8 ? "_ZnamRKSt9nothrow_t" : "_ZnajRKSt9nothrow_t";
    const zol_test::sweep_result result = zol_test::sweep_faults(take_and_refill, array_new);
    EXPECT_EQ(result.complaints, "");
    EXPECT_EQ(result.failures, 1) << "the waiter's room";
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

TEST_F(EventDelivery, ALongRecordOutlastsTheTimeOfItsWaiters)
{
    interrupt_calls();
    kiv_event_item *const door = events_.create("door");
    const std::string payload = pattern(1 << 20);
    g_hold = true;
    std::thread notifier([&] { EXPECT_EQ(notify(door, payload), KIV_OK); });
    EXPECT_TRUE(eventually([] { return bytes_in("door") == pipe_capacity; }));
    pthread_kill(notifier.native_handle(), SIGUSR1); // held up in the middle of its record
    EXPECT_TRUE(eventually([] { return g_interrupts == 1; }));
    EXPECT_EQ(wait_for("door", 1 << 20, 20'000), nothing);
    EXPECT_EQ(bytes_in("door"), 0) << "what has come is kept";
    EXPECT_EQ(wait_for("door", 1 << 20, 500), nothing);
    auto patient = std::async(std::launch::async, [] { return wait_for("door", 1 << 20); });
    EXPECT_EQ(wait_for("door", 1 << 20, 20'000), nothing) << "beside a patient one";
    g_hold = false;
    EXPECT_EQ(patient.get(), delivered(payload));
    notifier.join();
    EXPECT_EQ(wait_for("door", 64, 500), nothing);
}

TEST_F(EventDelivery, InterruptionsLoseNothingAndKeepTheTime)
{
    interrupt_calls();
    kiv_event_item *const door = events_.create("door");
    constexpr unsigned records = 200;
    const auto payload_of = [](unsigned n) { return pattern(n % 8 == 0 ? 150'000 : n * 17 % 5000, n); };
    std::atomic<bool> over{false};
    std::thread notifier([&] {
        for (unsigned n = 0; n < records; ++n) {
            EXPECT_EQ(notify(door, payload_of(n)), KIV_OK);
        }
        while (!over) {
            std::this_thread::yield();
        }
    });
    std::thread storm([&, waiter = pthread_self()] {
        while (!over) {
            pthread_kill(waiter, SIGUSR1);
            pthread_kill(notifier.native_handle(), SIGUSR1);
            std::this_thread::sleep_for(std::chrono::microseconds(50)); // some progress between them
        }
    });
    for (unsigned n = 0; n < records; ++n) {
        EXPECT_EQ(wait_for("door", 200'000), delivered(payload_of(n))) << n;
    }
    const auto start = test_clock::now();
    EXPECT_EQ(wait_for("door", 64, 100'000), nothing);
    EXPECT_GE(test_clock::now() - start, milliseconds(100));
    EXPECT_LT(test_clock::now() - start, milliseconds(5000));
    over = true;
    storm.join();
    notifier.join();
    EXPECT_GT(g_interrupts, 100);
}

TEST_F(EventDelivery, AFullPipeHoldsUpItsNotifierOnly)
{
    kiv_event_item *const full = events_.create("full");
    const std::string payload = pattern(200'000);
    std::future<int32_t> blocked = notify_aside(full, payload);
    EXPECT_TRUE(eventually([] { return bytes_in("full") == pipe_capacity; }));
    kiv_event_item *const other = events_.create("other");
    EXPECT_EQ(kiv_events_set_enable_event(full, 2), KIV_OK);
    EXPECT_EQ(notify(other, "through"), KIV_OK);
    EXPECT_EQ(wait_for("other"), delivered("through"));
    EXPECT_EQ(kiv_events_status_dump(), KIV_OK);
    events_.remove(other);
    EXPECT_EQ(wait_for("full", 200'000), delivered(payload));
    EXPECT_EQ(blocked.get(), KIV_OK);
}

// Several notifiers send numbered records of all lengths to several events.
struct traffic {
    static constexpr unsigned notifiers = 4;
    static constexpr unsigned events = 3;
    static constexpr unsigned records = 150; // of each notifier to each event
    static constexpr uint32_t largest = 70'000;
    static constexpr const char *names[events] = {"red", "green", "blue"};

    static std::string record(unsigned notifier, unsigned n)
    {
        const std::size_t size = n % 50 == 49 ? largest : n % 10 == 9 ? 6000 : 2 + n;
        return std::string{static_cast<char>(notifier), static_cast<char>(n)} + pattern(size - 2, n);
    }

    void wait_for_all(bool alone)
    {
        strings buffers(events, std::string(largest, '\0'));
        while (received < notifiers * events * records) {
            kiv_event_wait_entry entries[events];
            for (unsigned event = 0; event < events; ++event) {
                entries[event] = {names[event], 0, buffers[event].data(), largest, 0};
            }
            kiv_events_wait_for(entries, events, 5'000);
            for (unsigned event = 0; event < events; ++event) {
                if (entries[event].fired != 0) {
                    take(event, buffers[event].substr(0, entries[event].actual_sz), alone);
                }
            }
        }
    }

    void take(unsigned event, const std::string &got, bool alone)
    {
        ASSERT_GE(got.size(), 2U);
        const auto notifier = static_cast<unsigned char>(got[0]);
        const auto n = static_cast<unsigned char>(got[1]);
        ASSERT_TRUE(notifier < notifiers && n < records && got == record(notifier, n));
        EXPECT_TRUE(!alone || n == 0 || seen[event][notifier][n - 1] == 1) << "out of order";
        EXPECT_EQ(++seen[event][notifier][n], 1);
        ++received;
    }

    std::atomic<unsigned> received{0};
    std::atomic<int> seen[events][notifiers][records] = {};
};

TEST_F(EventDelivery, ManyNotifiersAndWaitersAccountForEveryRecord)
{
    kiv_event_item *items[traffic::events];
    std::transform(std::begin(traffic::names), std::end(traffic::names), items,
                   [this](const char *name) { return events_.create(name); });
    for (const unsigned waiters : {1U, 3U}) {
        log_capture log; // waiters that race for a record say so
        traffic all;
        std::vector<std::jthread> threads;
        for (unsigned notifier = 0; notifier < traffic::notifiers; ++notifier) {
            threads.emplace_back([&items, notifier] {
                for (unsigned n = 0; n < traffic::records; ++n) {
                    for (kiv_event_item *const item : items) {
                        EXPECT_EQ(notify(item, traffic::record(notifier, n)), KIV_OK);
                    }
                }
            });
        }
        for (unsigned waiter = 0; waiter < waiters; ++waiter) {
            threads.emplace_back([&all, alone = waiters == 1] { all.wait_for_all(alone); });
        }
        while (all.received < traffic::notifiers * traffic::events * traffic::records) {
            zol_test::own_events others; // that come and go meanwhile
            others.create("red herring");
            others.create("green herring");
            EXPECT_EQ(kiv_events_status_dump(), KIV_OK);
        }
        threads.clear(); // joins them
        EXPECT_TRUE(waiters > 1 || log.texts("ERRR").empty());
    }
}

TEST_F(EventDelivery, SteadyTrafficAllocatesNothing)
{
    constexpr uint32_t count = 64;
    strings names(count);
    kiv_event_item *items[count];
    for (uint32_t i = 0; i < count; ++i) {
        names[i] = "event_" + std::to_string(i);
        items[i] = events_.create(names[i]);
    }
    const std::string payload = pattern(5000);
    std::string buffer(payload.size(), '\0');
    const auto take_turns = [&](uint32_t turns) {
        for (uint32_t turn = 0; turn < turns; ++turn) {
            kiv_event_wait_entry entries[count];
            for (uint32_t i = 0; i < count; ++i) {
                entries[i] = {names[i].c_str(), 0, buffer.data(), 5000, 0};
            }
            EXPECT_EQ(kiv_events_notify(items[turn % count], payload.data(), 5000 - turn, 0), KIV_OK);
            EXPECT_EQ(kiv_events_wait_for(entries, count, zol_test::no_limit), KIV_OK);
            EXPECT_EQ(entries[turn % count].actual_sz, 5000 - turn);
        }
    };
    const long before = zol_test::allocations();
    take_turns(count);
    const long warm = zol_test::allocations();
    EXPECT_GT(warm, before) << "the records' rooms";
    take_turns(10 * count);
    EXPECT_EQ(zol_test::allocations(), warm);
}

TEST_F(EventDelivery, ForeignBytesDoNotStopTheNextRecord)
{
    kiv_event_item *const door = events_.create("door");
    const int fd = zol_test::fd_of("door");
    const kiv::unique_fd writer(open(printed("/proc/self/fd/%d", fd).c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(writer.is_open());
    const auto record = [](uint32_t magic, uint32_t size, const std::string &payload) {
        const uint32_t header[] = {magic, size};
        return std::string(reinterpret_cast<const char *>(header), sizeof header) + payload;
    };
    constexpr uint32_t magic = 0xDEADBEEF;
    const std::string assertion = "ASSERT FAILED [Src/kiv_events][";
    const std::string nothing_left = printed(" bytes from fd (%d), ret=-1, errno 11", fd);
    const std::string much = pattern(1000);
    const struct {
        std::string bytes, error;
        delivery outcome;
    } cases[] = {{record(1, 5, "hello"), assertion, delivered("hello")},
                 {record(1, UINT32_MAX, "hello"), assertion, delivered("hello")},
                 {record(1, UINT32_MAX, much), assertion, delivered(much.substr(0, 64))},
                 {"abc", "Failed reading message header - 8" + nothing_left, {KIV_OK, 0, ""}},
                 {record(magic, 10, "four"), "Failed reading 10" + nothing_left, {KIV_OK, 0, ""}},
                 {record(magic, UINT32_MAX, "four"), "Failed reading -1" + nothing_left, {KIV_OK, 0, ""}}};
    for (const auto &[bytes, error, outcome] : cases) {
        log_capture log;
        ASSERT_EQ(write(writer.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        EXPECT_EQ(wait_for("door"), outcome);
        ASSERT_EQ(log.texts("ERRR").size(), 1U);
        EXPECT_TRUE(log.texts("ERRR")[0].starts_with(error)) << log.texts("ERRR")[0];
        EXPECT_EQ(notify(door, "next"), KIV_OK);
        EXPECT_EQ(wait_for("door"), delivered("next"));
    }
}

} // namespace
