#include "zol/kiv_thread.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/tsan.h"
#include "support/eventually.h"
#include "support/fault_sweep.h"
#include "support/forked.h"
#include "support/log_capture.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using zol_test::log_capture;
using ids = std::vector<int32_t>;

namespace
{

constexpr int32_t data_message = 100;
constexpr int32_t ending_message = 101; // the handler answers it with 1
constexpr int32_t exit_message = 102;   // the handler makes it KIV_MSG_ID_EXIT
constexpr int32_t death_message = 103;  // the handler ends its thread

// A worker that notes what it handles.
class Worker : public testing::Test
{
protected:
    ~Worker() override
    {
        if (worker_.msgQueue != nullptr) {
            kiv_thread_stop(&worker_);
            kiv_thread_delete(&worker_);
        }
    }

    static int32_t note(kiv_thread *thread, kiv_message *msg)
    {
        auto *const self = static_cast<Worker *>(thread->userData);
        if (msg->msgId == KIV_MSG_ID_TIMEOUT) {
            EXPECT_STREQ(static_cast<const char *>(std::exchange(msg->pData, nullptr)), "timeout");
            msg->msgId = data_message; // is renewed too
            ++self->timeouts_;
            return 0;
        }
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        EXPECT_STREQ(name, "a worker's name");
        while (self->held_) {
            std::this_thread::yield();
        }
        self->handled_.push_back(msg->msgId);
        if (msg->msgId == death_message) {
            pthread_exit(nullptr);
        }
        msg->msgId = msg->msgId == exit_message ? KIV_MSG_ID_EXIT : msg->msgId;
        return msg->msgId == ending_message ? 1 : 0;
    }

    void create(int32_t timeout = -1)
    {
        const kiv_thread_params params = {"a worker's name, too long for a thread", 1, note, timeout, this};
        std::memset(&worker_, 0xA5, sizeof worker_); // as an object on a stack may be
        ASSERT_EQ(kiv_thread_create(&worker_, &params), KIV_OK);
    }

    void run(int32_t timeout = -1)
    {
        create(timeout);
        ASSERT_EQ(kiv_thread_start(&worker_), KIV_OK);
    }

    // Frees the message if it is not taken.
    int32_t send(int32_t id, bool sync = false)
    {
        kiv_message *const message = kiv_message_new(id, 0);
        if (message == nullptr) {
            return KIV_ERR_NO_MEMORY;
        }
        message->isSync = sync ? 1 : 0;
        const int32_t status = kiv_thread_sendMsg(&worker_, message);
        if (status != KIV_OK) {
            EXPECT_EQ(message->pBarrier, nullptr);
            kiv_message_free(message);
        }
        return status;
    }

    void wait_for_timeouts(int count)
    {
        const int before = timeouts_;
        EXPECT_TRUE(zol_test::eventually([&] { return timeouts_ >= before + count; }));
    }

    log_capture log_;
    kiv_thread worker_ = {};
    ids handled_; // the worker's, until it is joined
    std::atomic<int> timeouts_{0};
    std::atomic<bool> held_{false};
};

TEST(Message, HoldsAtLeastItsHeader)
{
    constexpr uint32_t header = sizeof(kiv_message);
    log_capture log;
    for (const auto &[asked, got] : {std::pair{0U, header}, {header, header}, {100U, 100U}, {10U, header}}) {
        kiv_message *const message = kiv_message_new(7, asked);
        EXPECT_TRUE(message->msgId == 7 && message->pData == nullptr && message->isSync == 0);
        EXPECT_EQ(message->sizeBytes, got);
        kiv_message_free(message);
    }
    const std::string text = "sizeBytes has to be at least sizeof(struct kiv_message) = ";
    EXPECT_EQ(log.texts("ERRR"), std::vector{text + std::to_string(header)});
    kiv_message_free(nullptr);
}

// Of the calls of the next test, in their order.
#define X21 "xxxxxxxxxxxxxxxxxxxxx"
constexpr const char *refusals[] = {
    "can't create thread (ab): its priority is above 3",
    "can't create thread (ab): it has no handler",
    "can't create thread (a): its name has to have 2 to 63 characters",
    "can't create thread (" X21 X21 X21 "): its name has to have 2 to 63 characters",
    "can't create thread (NULL): no parameters",
    "can't create thread (NULL): no thread object",
    "can't create thread (ab): it needs an object and a name",
    "can't create thread (): it needs an object and a name",
    "can't create thread (a): its name has to have 2 to 63 characters",
    "thread (ab): the message is too small: see kiv_message_new()",
    "thread (ab): no message",
    "thread (NULL): not created, or deleted",
    "no thread to join",
    "thread (): not created, or deleted",
};

TEST_F(Worker, RejectsInvalidParameters)
{
    const auto creation = [this](const std::string &name, uint32_t priority, kiv_thread_handler handler) {
        kiv_thread_params params = {"", priority, handler, -1, nullptr};
        name.copy(params.name, sizeof params.name);
        return kiv_thread_create(&worker_, &params);
    };
    EXPECT_EQ(creation("ab", 3, note), KIV_OK);
    kiv_thread other = {};
    kiv_message small = {};
    small.sizeBytes = sizeof small - 1;
    log_capture log;
    g_debugLevel = KIV_DEBUG_LEVEL_ALL; // a line about a thread that there is not
    const int32_t refused[] = {
        creation("ab", 4, note),
        creation("ab", 1, nullptr),
        creation("a", 1, note),
        creation(X21 X21 X21 "x", 1, note),
        kiv_thread_create(&other, nullptr),
        kiv_thread_create(nullptr, nullptr),
        kiv_thread_create_default(nullptr, "ab", note, nullptr),
        kiv_thread_create_default(&other, "", note, nullptr),
        kiv_thread_create_default(&other, "a", note, nullptr),
        kiv_thread_sendMsg(&worker_, &small),
        kiv_thread_sendMsg(&worker_, nullptr),
        kiv_thread_sendMsg(nullptr, &small),
        kiv_thread_stop(nullptr),
        kiv_thread_join(nullptr),
        kiv_thread_stop(&other),
    };
    EXPECT_EQ(std::ranges::count(refused, KIV_ERR_INVALID_PARAM), std::ssize(refused))
        << testing::PrintToString(refused);
    std::vector<std::string> reasons = log.texts("ERRR");
    std::erase_if(reasons, [](const std::string &line) { return line.starts_with("ASSERT FAILED"); });
    EXPECT_EQ(reasons, std::vector<std::string>(std::begin(refusals), std::end(refusals)));
    EXPECT_EQ(send(data_message), KIV_OK) << "never started: freed by the delete";
    EXPECT_EQ(kiv_thread_stop(&worker_), KIV_ERR_STATE);
    EXPECT_TRUE(kiv_thread_isRunning(&worker_) == 0 && kiv_thread_isRunning(nullptr) == 0);
    EXPECT_TRUE(kiv_thread_delete(&other) == KIV_OK && kiv_thread_delete(nullptr) == KIV_OK);
}

TEST_F(Worker, HandlesInOrderAndStopsLast)
{
    create();
    EXPECT_EQ(kiv_thread_join(&worker_), KIV_ERR_STATE) << "nobody to join";
    EXPECT_EQ(send(11), KIV_OK) << "before the start: kept";
    EXPECT_EQ(send(12, true), KIV_ERR_STATE) << "nobody to wait for";
    ASSERT_EQ(kiv_thread_start(&worker_), KIV_OK);
    EXPECT_EQ(kiv_thread_start(&worker_), KIV_ERR_SYSTEM) << "it runs already";
    EXPECT_EQ(send(data_message), KIV_OK);
    EXPECT_EQ(send(13, true), KIV_OK);
    EXPECT_EQ(handled_, (ids{11, data_message, 13})) << "handled when a synchronous send returns";
    EXPECT_EQ(send(14), KIV_OK);
    EXPECT_EQ(kiv_thread_stop(&worker_), KIV_OK);
    EXPECT_EQ(handled_, (ids{11, data_message, 13, 14, KIV_MSG_ID_EXIT}));
    EXPECT_EQ(kiv_thread_stop(&worker_), KIV_ERR_STATE) << "joined already";
    EXPECT_EQ(timeouts_, 0);
    EXPECT_EQ(kiv_thread_delete(&worker_), KIV_OK);
    EXPECT_EQ(worker_.msgQueue, nullptr);
    run();
    EXPECT_EQ(send(15, true), KIV_OK) << "the object serves again";
}

TEST_F(Worker, HandlesTimeouts)
{
    for (const int32_t timeout : {0, 1, 20'000, -2}) {
        run(timeout);
        wait_for_timeouts(3);
        EXPECT_EQ(send(data_message, true), KIV_OK);
        __atomic_store_n(&worker_.timeout, -1, __ATOMIC_RELAXED);
        EXPECT_EQ(kiv_thread_stop(&worker_), KIV_OK);
        kiv_thread_delete(&worker_);
    }
}

TEST_F(Worker, ReleasesSendersWhenItEnds)
{
    held_ = true;
    run();
    const auto queued = [&] { return g_async_queue_length(worker_.msgQueue); };
    EXPECT_EQ(send(data_message), KIV_OK) << "holds the worker, which then takes all others at once";
    EXPECT_TRUE(zol_test::eventually([&] { return queued() == 0; }));
    EXPECT_EQ(send(ending_message), KIV_OK);
    EXPECT_EQ(send(data_message), KIV_OK) << "freed, not handled";
    std::atomic<int> released{0};
    std::vector<std::jthread> senders;
    for (int i = 0; i < 4; ++i) {
        senders.emplace_back([&] { released += send(data_message, true) == KIV_ERR_STATE ? 1 : 0; });
    }
    EXPECT_TRUE(zol_test::eventually([&] { return queued() == 6; }));
    held_ = false;
    senders.clear(); // joins them
    EXPECT_EQ(released, 4);
    EXPECT_EQ(kiv_thread_isRunning(&worker_), 0);
    EXPECT_EQ(send(data_message), KIV_ERR_STATE);
    EXPECT_TRUE(log_.has(
        "ERRR", "thread (a worker's name, too long for a thread) has no worker to handle message (100)"));
    EXPECT_EQ(kiv_thread_stop(&worker_), KIV_OK) << "joins it";
    EXPECT_EQ(handled_, (ids{data_message, ending_message}));
}

TEST_F(Worker, RefusesItsOwnHandler)
{
    static std::atomic<int> refused{0};
    const kiv_thread_handler handle = [](kiv_thread *thread, kiv_message *msg) -> int32_t {
        if (msg->msgId == data_message) {
            kiv_message again = {};
            again.isSync = 1;
            again.sizeBytes = sizeof again;
            again.pBarrier = &again; // left over, and not to be taken for a barrier
            for (const int32_t status :
                 {kiv_thread_sendMsg(thread, &again), kiv_thread_stop(thread), kiv_thread_join(thread)}) {
                refused += status == KIV_ERR_STATE && again.pBarrier == nullptr ? 1 : 0;
            }
            __atomic_store_n(&thread->running, 0,
                             __ATOMIC_RELEASE); // ends it; a start would make a second one
            refused += kiv_thread_start(thread) == KIV_ERR_STATE ? 1 : 0;
        }
        return 0;
    };
    ASSERT_EQ(kiv_thread_create_default(&worker_, std::string(100, 'n').c_str(), handle, nullptr), KIV_OK);
    EXPECT_TRUE(worker_.name == std::string(63, 'n') && worker_.timeout == 3'000'000 &&
                worker_.priority == 1);
    EXPECT_EQ(send(data_message, true), KIV_OK);
    EXPECT_EQ(refused, 4);
}

TEST_F(Worker, StartsAgainAfterEveryEnd)
{
    g_debugLevel = KIV_DEBUG_LEVEL_ALL;
    run();
    const struct {
        int32_t id;
        int32_t status; // of a synchronous send
    } ends[] = {{ending_message, KIV_OK}, {exit_message, KIV_OK}, {death_message, KIV_ERR_STATE}};
    for (const auto &[id, status] : ends) {
        EXPECT_EQ(send(id, true), status);
        EXPECT_TRUE(zol_test::eventually([&] { return kiv_thread_isRunning(&worker_) == 0; }));
        EXPECT_EQ(send(data_message), KIV_ERR_STATE);
        EXPECT_EQ(kiv_thread_start(&worker_), KIV_OK) << "nobody has joined the one before";
        EXPECT_EQ(send(data_message, true), KIV_OK);
        EXPECT_EQ(kiv_thread_stop(&worker_), KIV_OK);
        EXPECT_EQ(kiv_thread_start(&worker_), KIV_OK);
    }
    EXPECT_EQ(handled_.size(), 3U * 3U) << "the end, a message, the stop";
    EXPECT_EQ(log_.count("INF2", "Joining (a worker's name, too long for a thread)"), 3U * 2U)
        << "each has been joined";
}

TEST_F(Worker, WorksWhileOthersJoinIt)
{
    run();
    std::atomic<int> ready{0};
    std::atomic<int> joined{0};
    std::vector<std::jthread> joiners;
    for (int i = 0; i < 2; ++i) {
        joiners.emplace_back([&] {
            pthread_cancel(pthread_self()); // takes no effect while it waits
            ++ready;
            joined += kiv_thread_join(&worker_) == KIV_OK ? 1 : 0;
        });
    }
    EXPECT_TRUE(zol_test::eventually([&] { return ready == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // most likely they wait by then
    EXPECT_EQ(send(data_message, true), KIV_OK);
    EXPECT_EQ(kiv_thread_stop(&worker_), KIV_OK);
    joiners.clear(); // joins them
    EXPECT_GE(joined, 1) << "one that comes late has nothing to join";
    EXPECT_EQ(worker_.gthread, nullptr);
}

// The child has no worker, and nobody in it releases the lock that is held at the fork.
TEST_F(Worker, AnswersAtOnceInAForkedChild)
{
    run();
    g_async_queue_lock(worker_.msgQueue);
    EXPECT_TRUE(zol_test::holds_in_child([this] {
        const int answers[] = {send(data_message), send(data_message, true), kiv_thread_stop(&worker_),
                               kiv_thread_join(&worker_), kiv_thread_start(&worker_)};
        const bool refused = std::ranges::count(answers, KIV_ERR_STATE) == std::ssize(answers);
        const bool deleted = kiv_thread_isRunning(&worker_) == 0 && kiv_thread_delete(&worker_) == KIV_OK &&
                             worker_.running == 0 && worker_.gthread == nullptr;
        create(); // a queue of the child's own
        const bool disowned =
            zol_test::holds_in_child([this] { return send(data_message) == KIV_ERR_STATE; });
        return refused && deleted && disowned && send(data_message) == KIV_OK &&
               kiv_thread_delete(&worker_) == KIV_OK;
    }));
    g_async_queue_unlock(worker_.msgQueue);
    EXPECT_EQ(send(data_message, true), KIV_OK) << "the parent's goes on";
}

// The child's only thread is its copy of the worker, which must neither answer the sender nor serve the queue.
TEST_F(Worker, EndsInAChildThatItsHandlerForks)
{
    static int status = -1;
    const kiv_thread_handler fork_once = [](kiv_thread * /*thread*/, kiv_message *msg) -> int32_t {
        const pid_t child = msg->msgId == data_message ? fork() : 1;
        if (child == 0) {
            alarm(10);
#if defined(KIV_TSAN) || defined(__SANITIZE_ADDRESS__)
            _exit(0); // the sanitizer would complain of what the parent's other threads left
#endif
        } else if (child > 1) {
            waitpid(child, &status, 0);
        }
        return 0; // which ends the child
    };
    ASSERT_EQ(kiv_thread_create_default(&worker_, "forks", fork_once, nullptr), KIV_OK);
    EXPECT_EQ(send(data_message, true), KIV_OK);
    EXPECT_EQ(status, 0) << "14 is the alarm";
    EXPECT_EQ(kiv_thread_stop(&worker_), KIV_OK) << "the parent's goes on";
}

TEST_F(Worker, KeepsItsQueueWhenDeletedWhileRunning)
{
    held_ = true;
    run(1000);
    EXPECT_EQ(send(data_message), KIV_OK) << "holds the worker";
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // most likely it has it by then
    EXPECT_EQ(send(data_message), KIV_OK);
    EXPECT_EQ(kiv_thread_delete(&worker_), KIV_OK);
    held_ = false;
    EXPECT_TRUE(log_.has(
        "ERRR", "thread (a worker's name, too long for a thread): deleted while it counts as running"));
    wait_for_timeouts(3);
    __atomic_store_n(&worker_.running, 0, __ATOMIC_RELEASE);
    EXPECT_EQ(kiv_thread_join(&worker_), KIV_OK);
    EXPECT_EQ(handled_, (ids{data_message, data_message})) << "what was queued is handled";
}

TEST_F(Worker, KeepsTheOrderOfEachSender)
{
    constexpr int senders_count = 16, messages = 2000;
    run();
    std::vector<std::jthread> senders;
    for (int sender = 0; sender < senders_count; ++sender) {
        senders.emplace_back([this, sender] {
            for (int n = 0; n < messages; ++n) {
                ASSERT_EQ(send(1000 + n * senders_count + sender, n % 8 == 0), KIV_OK);
            }
        });
    }
    senders.clear(); // joins them
    ASSERT_EQ(kiv_thread_stop(&worker_), KIV_OK);
    handled_.pop_back(); // the exit
    EXPECT_EQ(handled_.size(), static_cast<std::size_t>(senders_count * messages));
    const auto sender_of = [](int32_t id) { return (id - 1000) % senders_count; };
    std::ranges::stable_sort(handled_, {}, sender_of);
    EXPECT_TRUE(
        std::ranges::is_sorted(handled_, {}, [&](int32_t id) { return std::pair(sender_of(id), id); }));
}

TEST_F(Worker, StopsCleanlyWhileItEnds)
{
    for (int round = 0; round < 300; ++round) {
        run();
        std::thread sender([this, round] {
            send(data_message, round % 2 == 0);
            send(ending_message, round % 3 == 0);
            send(data_message, round % 5 == 0);
        });
        EXPECT_EQ(kiv_thread_stop(&worker_), KIV_OK);
        sender.join();
        kiv_thread_delete(&worker_);
    }
    for (const zol_test::log_line &line : zol_test::parse_log(log_.out())) {
        EXPECT_TRUE(line.function != "kiv_thread_stop" && line.function != "kiv_thread_join") << line.text;
    }
}

TEST_F(Worker, ReportsEveryFailure)
{
    const int failures = zol_test::handled_failures([this] {
        log_capture log;
        const bool made = kiv_thread_create_default(&worker_, "a worker's name", note, this) == KIV_OK;
        const bool sent = made && send(data_message, true) == KIV_OK;
        const bool stopped = made && kiv_thread_stop(&worker_) == KIV_OK;
        const bool failed = !zol_test::failed_call().empty();
        const bool is_deleted = made || worker_.msgQueue == nullptr;
        while (worker_.gthread != nullptr) {
            kiv_thread_stop(&worker_); // the second try has memory
        }
        kiv_thread_delete(&worker_);
        return failed != (made && sent && stopped) && failed != log.texts("ERRR").empty() && is_deleted;
    });
    EXPECT_GE(failures, 6) << "the thread, its time-out message, the message, two barriers, the last message";
    const auto start = [this]() -> std::string {
        create();
        const bool started = kiv_thread_start(&worker_) == KIV_OK;
        const int32_t sent = send(data_message, true); // would wait for ever
        started ? kiv_thread_stop(&worker_) : 0;
        kiv_thread_delete(&worker_);
        return started == zol_test::failed_call().empty() && sent == (started ? KIV_OK : KIV_ERR_STATE)
                   ? ""
                   : "a message without a worker";
    };
    EXPECT_EQ(zol_test::sweep_faults(start, "g_thread_try_new").complaints, "");
}

} // namespace
