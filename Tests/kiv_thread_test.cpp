#include "zol/kiv_thread.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/eventually.h"
#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using zol_test::log_capture;
using ids = std::vector<int32_t>;

namespace
{

constexpr int32_t data_message = 100;
constexpr int32_t ending_message = 101; // the handler answers it with 1

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
            EXPECT_STREQ(static_cast<const char *>(msg->pData), "timeout");
            ++self->timeouts_;
            return 0;
        }
        while (self->held_) {
            std::this_thread::yield();
        }
        self->handled_.push_back(msg->msgId);
        return msg->msgId == ending_message ? 1 : 0;
    }

    void create(int32_t timeout = -1)
    {
        const kiv_thread_params params = {"worker", 1, note, timeout, this};
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
        message->isSync = sync ? 1 : 0;
        const int32_t status = kiv_thread_sendMsg(&worker_, message);
        if (status != KIV_OK) {
            kiv_message_free(message);
        }
        return status;
    }

    void wait_for_timeouts(int count)
    {
        const int before = timeouts_;
        EXPECT_TRUE(zol_test::eventually([&] { return timeouts_ >= before + count; }));
    }

    kiv_thread worker_ = {};
    ids handled_; // the worker's, until it is joined
    std::atomic<int> timeouts_{0};
    std::atomic<bool> held_{false};
};

TEST(Message, SizesAndFields)
{
    constexpr uint32_t header = sizeof(kiv_message);
    log_capture log;
    for (const auto &[asked, got] : {std::pair{0U, header}, {header, header}, {100U, 100U}, {10U, header}}) {
        EXPECT_TRUE(log.texts("ERRR").empty());
        kiv_message *const message = kiv_message_new(7, asked);
        EXPECT_TRUE(message->msgId == 7 && message->pData == nullptr && message->isSync == 0);
        EXPECT_EQ(message->sizeBytes, got);
        kiv_message_free(message);
    }
    EXPECT_TRUE(log.has("ERRR", "sizeBytes has to be at least sizeof(struct kiv_message) = " +
                                    std::to_string(header)));
    kiv_message_free(nullptr);
}

TEST_F(Worker, ParametersAreChecked)
{
    log_capture log;
    const auto creation = [](const std::string &name, uint32_t priority, kiv_thread_handler handler) {
        kiv_thread_params params = {"", priority, handler, -1, nullptr};
        name.copy(params.name, sizeof params.name);
        kiv_thread made = {};
        const int32_t status = kiv_thread_create(&made, &params);
        EXPECT_EQ(kiv_thread_delete(&made), KIV_OK);
        return status;
    };
    EXPECT_EQ(creation("ab", 3, note), KIV_OK);
    create();
    kiv_thread other = {};
    kiv_message small = {};
    small.sizeBytes = sizeof small - 1;
    const int32_t refused[] = {creation("ab", 4, note),
                               creation("ab", 1, nullptr),
                               creation("a", 1, note),
                               creation("", 1, note),
                               creation(std::string(sizeof kiv_thread_params::name, 'x'), 1, note),
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
                               kiv_thread_stop(&other)};
    for (const int32_t status : refused) {
        EXPECT_EQ(status, KIV_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(kiv_thread_delete(nullptr), KIV_OK);
    EXPECT_EQ(send(data_message), KIV_OK); // a leak checker sees whether it is freed
    EXPECT_EQ(kiv_thread_stop(&worker_), KIV_ERR_STATE) << "never started";
}

TEST_F(Worker, HandlesInOrderAndStopsLast)
{
    create();
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
    EXPECT_EQ(kiv_thread_isRunning(&worker_), 0);
    EXPECT_EQ(kiv_thread_stop(&worker_), KIV_ERR_STATE) << "joined already";
    EXPECT_EQ(kiv_thread_start(&worker_), KIV_ERR_STATE);
    EXPECT_EQ(timeouts_, 0);
    EXPECT_EQ(kiv_thread_delete(&worker_), KIV_OK);
    EXPECT_EQ(worker_.msgQueue, nullptr);
    run();
    EXPECT_EQ(send(15, true), KIV_OK) << "the object serves again";
}

TEST_F(Worker, TimeoutsComeWhileNothingElseDoes)
{
    for (const int32_t timeout : {0, 1, 20'000}) {
        run(timeout);
        wait_for_timeouts(3);
        EXPECT_EQ(send(data_message, true), KIV_OK);
        __atomic_store_n(&worker_.timeout, -1, __ATOMIC_RELAXED);
        EXPECT_EQ(kiv_thread_stop(&worker_), KIV_OK);
        kiv_thread_delete(&worker_);
    }
}

TEST_F(Worker, SendersBehindItsOwnEndAreReleased)
{
    log_capture log;
    held_ = true;
    run();
    EXPECT_EQ(send(ending_message), KIV_OK);
    EXPECT_EQ(send(data_message), KIV_OK) << "freed, not handled";
    std::atomic<int> released{0};
    std::vector<std::jthread> senders;
    for (int i = 0; i < 4; ++i) {
        senders.emplace_back([&] { released += send(data_message, true) == KIV_ERR_STATE ? 1 : 0; });
    }
    EXPECT_TRUE(zol_test::eventually([&] { return g_async_queue_length(worker_.msgQueue) >= 5; }));
    held_ = false;
    senders.clear(); // joins them
    EXPECT_EQ(released, 4);
    EXPECT_EQ(kiv_thread_isRunning(&worker_), 0);
    EXPECT_EQ(send(data_message), KIV_ERR_STATE);
    EXPECT_EQ(send(data_message, true), KIV_ERR_STATE);
    EXPECT_TRUE(log.has("ERRR", "thread (worker) has no worker to handle message (100)"));
    EXPECT_EQ(kiv_thread_stop(&worker_), KIV_OK) << "joins it";
    EXPECT_EQ(kiv_thread_stop(&worker_), KIV_ERR_STATE);
    EXPECT_EQ(handled_, ids{ending_message});
}

TEST_F(Worker, StopAndSendFromItsOwnHandlerAreRefused)
{
    log_capture log;
    static std::atomic<int> refused{0};
    const kiv_thread_handler handle = [](kiv_thread *thread, kiv_message *msg) -> int32_t {
        if (msg->msgId == data_message) {
            kiv_message *const again = kiv_message_new(data_message, 0);
            again->isSync = 1;
            refused += kiv_thread_sendMsg(thread, again) == KIV_ERR_STATE ? 1 : 0;
            kiv_message_free(again);
            refused += kiv_thread_stop(thread) == KIV_ERR_STATE ? 1 : 0;
            refused += kiv_thread_join(thread) == KIV_ERR_STATE ? 1 : 0;
        }
        return 0;
    };
    ASSERT_EQ(kiv_thread_create_default(&worker_, std::string(100, 'n').c_str(), handle, nullptr), KIV_OK);
    EXPECT_TRUE(worker_.name == std::string(63, 'n') && worker_.timeout == 3'000'000 &&
                worker_.priority == 1);
    EXPECT_EQ(send(data_message, true), KIV_OK);
    EXPECT_EQ(refused, 3);
}

TEST_F(Worker, DeletingARunningOneLeavesItItsQueue)
{
    log_capture log;
    run(1000);
    EXPECT_EQ(kiv_thread_delete(&worker_), KIV_OK);
    EXPECT_EQ(log.texts("ERRR").size(), 1U) << "the assertion";
    wait_for_timeouts(3);
    __atomic_store_n(&worker_.running, 0, __ATOMIC_RELEASE);
    EXPECT_EQ(kiv_thread_join(&worker_), KIV_OK);
}

TEST_F(Worker, MixedSendsKeepTheOrderOfEachSender)
{
    constexpr int total = 32'000;
    for (const int senders_count : {1, 4, 16}) {
        handled_.clear();
        run();
        std::vector<std::jthread> senders;
        for (int sender = 0; sender < senders_count; ++sender) {
            senders.emplace_back([this, sender, senders_count] {
                for (int n = 0; n < total / senders_count; ++n) {
                    ASSERT_EQ(send(1000 + n * 16 + sender, n % 8 == 0), KIV_OK);
                }
            });
        }
        senders.clear(); // joins them
        ASSERT_EQ(kiv_thread_stop(&worker_), KIV_OK);
        kiv_thread_delete(&worker_);
        ASSERT_EQ(handled_.size(), static_cast<std::size_t>(total + 1));
        handled_.pop_back(); // the exit
        ids last(16, -1);
        for (const int32_t id : handled_) {
            const auto sender = static_cast<std::size_t>((id - 1000) % 16);
            ASSERT_GT(id, last[sender]);
            last[sender] = id;
        }
    }
}

TEST_F(Worker, StopsRacingWithItsOwnEndNeitherHangNorLeak)
{
    log_capture log;
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
}

TEST_F(Worker, EveryFailureOnTheWayIsReported)
{
    const zol_test::sweep_result result = zol_test::sweep_faults([this]() -> std::string {
        log_capture log;
        kiv_thread worker = {};
        const int32_t made = kiv_thread_create_default(&worker, "swept", note, this);
        kiv_message *const message = kiv_message_new(data_message, 0);
        int32_t sent = KIV_ERR_NO_MEMORY;
        if (made == KIV_OK && message != nullptr) {
            message->isSync = 1;
            sent = kiv_thread_sendMsg(&worker, message);
        }
        if (sent != KIV_OK) {
            kiv_message_free(message);
        }
        int32_t stopped = made == KIV_OK ? kiv_thread_stop(&worker) : KIV_OK;
        const bool failed = !zol_test::failed_call().empty();
        const bool reported = made != KIV_OK || sent != KIV_OK || stopped != KIV_OK;
        while (made == KIV_OK && worker.gthread != nullptr) {
            stopped = kiv_thread_stop(&worker); // the second try has memory
        }
        kiv_thread_delete(&worker);
        return failed == reported && failed != log.texts("ERRR").empty() ? "" : "unreported";
    });
    EXPECT_EQ(result.complaints, "");
    EXPECT_GE(result.failures, 6)
        << "the thread, its time-out message, the message, two barriers and the last message";
}

} // namespace
