#include "zol/zol.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/debug_level.h"
#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "support/scratch.h"

using zol_test::log_capture;
using strings = std::vector<std::string>;

namespace
{

class Lifecycle : public testing::Test
{
protected:
    std::string write(const std::string &xml) { return scratch_.write("conf.xml", xml); }

    zol_test::scratch_directory scratch_;
};

TEST_F(Lifecycle, StartsAndStops)
{
    g_debugLevel = 2;
    log_capture log;
    ASSERT_EQ(zol_init(write(zol_test::minimal_configuration()).c_str()), KIV_OK);
    EXPECT_STREQ(g_tokensPath, "/opt/tokens");
    EXPECT_EQ(g_debugLevel, 1U) << "as configured";
    zol_test::set_debug_level(2);
    const std::string before = log.out();
    EXPECT_EQ(zol_init("/nowhere"), KIV_OK);
    EXPECT_EQ(log.out(), before) << "the second start says and does nothing";
    kiv_lock();
    kiv_unlock();
    EXPECT_EQ(zol_deinit(), KIV_OK);
    EXPECT_STREQ(g_tokensPath, "");
    const std::string talkative = zol_test::configuration(
        "<configName>board-a</configName><debugLevel>2</debugLevel><systemTokensPath>t</systemTokensPath>"
        "<i2c_buses_num>1</i2c_buses_num>");
    ASSERT_EQ(zol_init(write(talkative).c_str()), KIV_OK);
    EXPECT_EQ(zol_deinit(), KIV_OK);
    const strings expected = {"initialize kiv",
                              "initialize",
                              "destruct kiv",
                              "de-initialize",
                              "cleaning kiv_test_util", //
                              "initialize kiv",
                              "initialize",
                              "g_debugLevel = 2",
                              "systemTokensPath (t)",
                              "initialize",
                              "system with 2 i2c buses",
                              "initialize kiv - configName[board-a]",
                              "destruct kiv",
                              "de-initialize",
                              "cleaning kiv_test_util"};
    EXPECT_EQ(log.texts("PRNT"), expected);
    EXPECT_TRUE(log.texts("ERRR").empty());
}

TEST_F(Lifecycle, EveryMissingKeyFailsTheStart)
{
    for (const std::string key : {"configName", "debugLevel", "systemTokensPath", "i2c_buses_num"}) {
        std::string xml = zol_test::minimal_configuration();
        for (std::size_t at = 0; (at = xml.find(key, at)) != std::string::npos;) {
            xml.replace(at, key.size(), "other");
        }
        g_debugLevel = 2;
        log_capture log;
        EXPECT_EQ(zol_init(write(xml).c_str()), KIV_ERR_INVALID_PARAM) << xml;
        EXPECT_TRUE(log.texts("ERRR").at(0).starts_with("ASSERT FAILED")) << key;
        EXPECT_STREQ(g_tokensPath, "") << "everything is stopped again";
        EXPECT_EQ(kiv_config_get_param("general", "", "debugLevel", nullptr, 0), 0);
        EXPECT_FALSE(log.has("PRNT", "system with 2 i2c buses"));
    }
}

TEST_F(Lifecycle, WithoutAStartNothingIsStoppedOrLocked)
{
    log_capture log;
    EXPECT_EQ(zol_deinit(), KIV_ERR_STATE);
    EXPECT_EQ(log.texts("ERRR"), strings{"the library is not initialized"});
    kiv_lock();
    kiv_unlock();
    EXPECT_EQ(log.texts("ERRR").size(), 3U) << "an assertion each";
    EXPECT_EQ(zol_init("/nowhere/conf.xml"), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(zol_deinit(), KIV_ERR_STATE);
}

TEST_F(Lifecycle, EveryFailureOnTheWayIsReported)
{
    const std::string file = write(zol_test::minimal_configuration());
    const zol_test::sweep_result result = zol_test::sweep_faults([&file]() -> std::string {
        log_capture log;
        const int32_t started = zol_init(file.c_str());
        const int32_t stopped = zol_deinit();
        // The calls of a listener that runs, and of who tells it to stop, hold up neither start nor stop.
        const std::string call = zol_test::failed_call();
        const bool survived = call.empty() || call == "poll" || call == "read" || call == "write";
        const bool is_silent = call.empty() || call == "read"; // of a command, which is read again
        const bool is_right = survived ? started == KIV_OK && stopped == KIV_OK
                                       : started == KIV_ERR_INVALID_PARAM && stopped == KIV_ERR_STATE;
        return is_right && is_silent == log.texts("ERRR").empty() ? "" : "wrong status, or unreported";
    });
    EXPECT_EQ(result.complaints, "");
    EXPECT_GE(result.failures, 10) << "the lock, stat, the parser, what a listener needs, the stop";
}

TEST(Services, DeadlinesCarryIntoTheSeconds)
{
    for (const int32_t timeout : {0, 1, 999'999, 1'000'000, 1'500'000, 2'147'483'647, -1, -1'500'000}) {
        timespec before{};
        timespec after{};
        timespec deadline{};
        clock_gettime(CLOCK_REALTIME, &before);
        ASSERT_EQ(kiv_prepare_time_spec(timeout, &deadline), KIV_OK);
        clock_gettime(CLOCK_REALTIME, &after);
        const auto ns = [](const timespec &ts) { return ts.tv_sec * 1'000'000'000LL + ts.tv_nsec; };
        EXPECT_GE(ns(deadline) - ns(before), timeout * 1000LL);
        EXPECT_LE(ns(deadline) - ns(after), timeout * 1000LL);
        EXPECT_GE(deadline.tv_nsec, 0);
        EXPECT_LT(deadline.tv_nsec, 1'000'000'000);
    }
    log_capture log;
    EXPECT_EQ(kiv_prepare_time_spec(0, nullptr), KIV_ERR_INVALID_PARAM);
}

TEST(Services, AClockThatFailsEndsTheWaitAtOnce)
{
    const zol_test::sweep_result result = zol_test::sweep_faults([]() -> std::string {
        log_capture log;
        timespec deadline{};
        if (kiv_prepare_time_spec(1'500'000, &deadline) == KIV_ERR_SYSTEM) {
            return deadline.tv_sec == 1 && deadline.tv_nsec == 500'000'000 ? "" : "no deadline";
        }
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
        pthread_mutex_lock(&mutex);
        const int32_t waited = kiv_cond_timedwait(&cond, &mutex, 0);
        pthread_mutex_unlock(&mutex);
        const int32_t expected = zol_test::failed_call().empty() ? KIV_ERR_TIMEOUT : KIV_ERR_SYSTEM;
        return waited == expected ? "" : "unreported";
    });
    EXPECT_EQ(result.complaints, "");
    EXPECT_EQ(result.failures, 2);
}

TEST(Services, TimedWaitEndsByTheSignalOrTheTime)
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
    EXPECT_EQ(kiv_cond_timedwait(nullptr, &mutex, -1), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_cond_timedwait(&cond, nullptr, 5), KIV_ERR_INVALID_PARAM);
}

TEST(Services, TextWithAStatus)
{
    g_debugLevel = KIV_DEBUG_LEVEL_ALL;
    log_capture log;
    char text[8] = "#######";
    EXPECT_EQ(kiv_snprintf(text, 6, "%s", "hello"), KIV_OK);
    EXPECT_STREQ(text, "hello");
    EXPECT_EQ(kiv_snprintf(text, 6, "%s", "hello!"), KIV_ERR_NO_MEMORY);
    EXPECT_STREQ(text, "hello");
    EXPECT_EQ(text[6], '#');
    EXPECT_EQ(kiv_snprintf(text, 0, "%s", "x"), KIV_ERR_NO_MEMORY);
    EXPECT_EQ(kiv_snprintf(nullptr, 6, "x"), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(log.texts("ERRR"), (strings{"not enough space provided by the user 6 / 6",
                                          "not enough space provided by the user 0 / 1"}));
    int first = 0;
    int second = 7;
    EXPECT_EQ(kiv_sscanf("12 x", "%d %d", &first, &second), KIV_OK);
    EXPECT_EQ(first, 12);
    EXPECT_EQ(second, 7);
    EXPECT_EQ(kiv_sscanf(nullptr, "%d", &first), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(log.texts("INF2"), (strings{"writtenBytes (hello) = 5 / 6", "writtenBytes (hello) = 6 / 6",
                                          "writtenBytes () = 1 / 0", "foundItems (12 x)(%d %d) = 1"}));
}

TEST(Services, VersionAndSpi)
{
    g_debugLevel = 2;
    log_capture log;
    char version[7] = "######";
    EXPECT_EQ(kiv_get_version(version), KIV_OK);
    EXPECT_STREQ(version, "0.1.0");
    EXPECT_EQ(kiv_get_version(nullptr), KIV_OK);
    EXPECT_EQ(log.count("PRNT", "Version : 0.1.0"), 2U);
    EXPECT_EQ(spi_init(), KIV_ERR_UNIMPLEMENTED);
    EXPECT_EQ(spi_deinit(), KIV_ERR_UNIMPLEMENTED);
    EXPECT_EQ(log.count("ERRR", "Unimplemented Case!"), 2U);
}

} // namespace
