#include "zol/zol.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "common/tsan.h"
#include "support/debug_level.h"
#include "support/eventually.h"
#include "support/fake_host.h"
#include "support/fault_sweep.h"
#include "support/forked.h"
#include "support/log_capture.h"
#include "support/scratch.h"

using zol_test::log_capture;
using strings = std::vector<std::string>;

namespace
{

class Lifecycle : public testing::Test
{
protected:
    zol_test::scratch_directory scratch_;
    std::string file_ = scratch_.write("conf.xml", zol_test::minimal_configuration());
};

TEST_F(Lifecycle, StartsAndStopsAgain)
{
    {
        g_debugLevel = 2;
        log_capture log;
        EXPECT_EQ(zol_deinit(), KIV_ERR_STATE);
        EXPECT_TRUE(log.has("PRNT", "cleaning kiv_test_util")) << "tests need no start";
        kiv_lock();
        kiv_unlock();
        EXPECT_EQ(log.count("ERRR", "the library is not initialized"), 3U);
    }
    for (int run = 0; run < 2; ++run) {
        g_debugLevel = 2;
        log_capture log;
        ASSERT_EQ(zol_init(file_.c_str()), KIV_OK);
        EXPECT_STREQ(g_tokensPath, "/opt/tokens");
        EXPECT_EQ(g_debugLevel, 1U) << "as configured";
        zol_test::set_debug_level(2);
        EXPECT_EQ(zol_init("/nowhere"), KIV_OK);
        kiv_lock();
        kiv_unlock();
        EXPECT_EQ(zol_deinit(), KIV_OK);
        EXPECT_STREQ(g_tokensPath, "");
        EXPECT_EQ(kiv_config_get_param("general", "", "debugLevel", nullptr, 0), 0);
        EXPECT_EQ(log.texts("PRNT"), (strings{"initialize kiv", "initialize", "destruct kiv", "de-initialize",
                                              "cleaning kiv_test_util"}))
            << "the second start does nothing";
        EXPECT_TRUE(log.texts("ERRR").empty());
    }
    log_capture log;
    EXPECT_EQ(zol_init((file_ + "/below").c_str()), KIV_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.has("PRNT", "initialize kiv - configName[]")) << "the name of no earlier start";
}

TEST_F(Lifecycle, FreesTheLockInAForkedChildUnlessItsThreadHoldsIt)
{
    ASSERT_EQ(zol_init(file_.c_str()), KIV_OK);
    kiv_lock();
    std::thread([] {
        EXPECT_TRUE(zol_test::holds_in_child([] {
            kiv_lock();
            kiv_unlock();
            return true;
        }));
    }).join();
    EXPECT_FALSE(zol_test::holds_in_child([] {
        ualarm(50'000, 0); // ends it: its only thread holds the lock, as its parent does
        kiv_lock();
        return true;
    }));
    kiv_unlock();
    std::atomic<bool> is_locked{false};
    std::atomic<bool> is_released{false};
    std::thread other([&] {
        kiv_lock();
        is_locked = true;
        while (is_locked) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // the stop waits by now
        is_released = true;
        kiv_unlock();
    });
    EXPECT_TRUE(zol_test::eventually([&is_locked] { return is_locked.load(); }));
    EXPECT_TRUE(zol_test::holds_in_child([] {
        kiv_lock();
        kiv_unlock();
        return true;
    })) << "this thread has given it back";
    is_locked = false;
    EXPECT_EQ(zol_deinit(), KIV_OK);
    EXPECT_TRUE(is_released) << "the stop waits for the lock";
    other.join();
}

TEST_F(Lifecycle, ReportsEveryFailedCall)
{
    const int failures = zol_test::handled_failures([this] {
        log_capture log;
        const int32_t started = zol_init(file_.c_str());
        const int32_t stopped = zol_deinit();
        // The calls of a running listener, and of the one that stops it, hold up neither start nor stop.
        const std::string call = zol_test::failed_call();
        const bool is_silent = call.empty() || call == "read" || call == "fstat"; // of the listener's pipe
        const bool survived = is_silent || call == "poll" || call == "write";
        const bool is_right = survived ? started == KIV_OK && stopped == KIV_OK
                                       : started == KIV_ERR_INVALID_PARAM && stopped == KIV_ERR_STATE;
        return is_right && is_silent == log.texts("ERRR").empty();
    });
    EXPECT_STREQ(g_tokensPath, "") << "everything is stopped again";
    EXPECT_GE(failures, 10) << "the lock, stat, the parser, what a listener needs, the stop";
}

TEST(Services, CarriesDeadlinesIntoTheSeconds)
{
    const struct {
        int32_t timeout;
        long seconds, nanoseconds;
    } cases[] = {{299'999, 10, 999'999'000},         {300'000, 11, 0},   {1'500'000, 12, 200'000'000},
                 {2'147'483'647, 2158, 183'647'000}, {-1'700'000, 9, 0}, {-700'001, 9, 999'999'000}};
    zol_test::fake_host host;
    host.set_time(10, 700'000);
    for (const auto &[timeout, seconds, nanoseconds] : cases) {
        timespec deadline{};
        ASSERT_EQ(kiv_prepare_time_spec(timeout, &deadline), KIV_OK);
        EXPECT_TRUE(deadline.tv_sec == seconds && deadline.tv_nsec == nanoseconds) << timeout;
    }
    log_capture log;
    EXPECT_EQ(kiv_prepare_time_spec(0, nullptr), KIV_ERR_INVALID_PARAM);
}

TEST(Services, DoesNotWaitWhenTheClockFails)
{
    const int failures = zol_test::handled_failures([] {
        log_capture log;
        timespec deadline{};
        if (kiv_prepare_time_spec(1'500'000, &deadline) == KIV_ERR_SYSTEM) {
            return deadline.tv_sec == 1 && deadline.tv_nsec == 500'000'000;
        }
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
        pthread_mutex_lock(&mutex);
        const int32_t waited = kiv_cond_timedwait(&cond, &mutex, 0);
        pthread_mutex_unlock(&mutex);
        return waited == (zol_test::failed_call().empty() ? KIV_ERR_TIMEOUT : KIV_ERR_SYSTEM);
    });
    EXPECT_EQ(failures, 2);
}

TEST(Services, WaitsUntilTheSignalOrTheDeadline)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    g_debugLevel = 2;
    log_capture log;
    pthread_mutex_lock(&mutex);
    EXPECT_EQ(kiv_cond_timedwait(&cond, &mutex, 1000), KIV_ERR_TIMEOUT);
    EXPECT_TRUE(log.has("PRNT", "timeout reached 110 on cond"));
    for (const int32_t timeout : {-1, 60'000'000}) {
        bool ready = false;
        const std::jthread signaller([&] {
            pthread_mutex_lock(&mutex);
            ready = true;
            pthread_cond_signal(&cond);
            pthread_mutex_unlock(&mutex);
        });
        while (!ready) {
            EXPECT_EQ(kiv_cond_timedwait(&cond, &mutex, timeout), KIV_OK);
        }
    }
    pthread_mutex_unlock(&mutex);
#if !defined(KIV_TSAN) // reports the mutex that is not held
    pthread_mutex_t checked = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    EXPECT_EQ(kiv_cond_timedwait(&cond, &checked, 1000), KIV_ERR_SYSTEM);
    EXPECT_EQ(kiv_cond_timedwait(&cond, &checked, -1), KIV_OK);
    EXPECT_EQ(log.texts("ERRR"), (strings{"pthread_cond_timedwait = 1", "failed pthread_cond_wait = 1"}));
#endif
    EXPECT_EQ(kiv_cond_timedwait(nullptr, &mutex, -1), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_cond_timedwait(&cond, nullptr, 5), KIV_ERR_INVALID_PARAM);
}

TEST(Services, ScansAndPrintsWithAStatus)
{
    g_debugLevel = KIV_DEBUG_LEVEL_ALL;
    log_capture log;
    char text[8] = "#######";
    EXPECT_EQ(kiv_snprintf(text, 6, "%s", "hello"), KIV_OK);
    EXPECT_EQ(kiv_snprintf(text, 6, "%s", "hello!"), KIV_ERR_NO_MEMORY);
    EXPECT_TRUE(text == std::string("hello") && text[6] == '#');
    EXPECT_EQ(kiv_snprintf(text, 0, "%s", "x"), KIV_ERR_NO_MEMORY);
    EXPECT_EQ(kiv_snprintf(nullptr, 6, "x"), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(log.texts("ERRR"), (strings{"not enough space provided by the user 6 / 6",
                                          "not enough space provided by the user 0 / 1"}));
    int first = 0, second = 7;
    EXPECT_EQ(kiv_sscanf("12 x", "%d %d", &first, &second), KIV_OK);
    EXPECT_TRUE(first == 12 && second == 7);
    EXPECT_EQ(kiv_sscanf(nullptr, "%d", &first), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(log.texts("INF2"), (strings{"writtenBytes (hello) = 5 / 6", "writtenBytes (hello) = 6 / 6",
                                          "writtenBytes () = 1 / 0", "foundItems (12 x)(%d %d) = 1"}));
}

TEST(Services, TellsTheVersionAndThatSpiIsMissing)
{
    g_debugLevel = 2;
    log_capture log;
    char version[7] = "######";
    EXPECT_TRUE(kiv_get_version(version) == KIV_OK && kiv_get_version(nullptr) == KIV_OK);
    EXPECT_STREQ(version, "0.1.0");
    EXPECT_EQ(log.count("PRNT", "Version : 0.1.0"), 2U);
    EXPECT_TRUE(spi_init() == KIV_ERR_UNIMPLEMENTED && spi_deinit() == KIV_ERR_UNIMPLEMENTED);
    EXPECT_EQ(log.count("ERRR", "Unimplemented Case!"), 2U);
}

} // namespace
