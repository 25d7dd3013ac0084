#include "zol/kiv_debug.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/scratch.h"
#include "zol/kiv_config.h"
#include "zol/kiv_status.h"

using zol_test::log_capture;

namespace
{

std::string levels_shown(log_capture &log)
{
    std::string levels;
    for (const zol_test::log_line &line : zol_test::parse_log(log.out())) {
        levels += line.level + " ";
    }
    return levels;
}

void log_at_every_level()
{
    KIV_LOG_ERRR("e\n");
    KIV_LOG_PRNT("p\n");
    KIV_LOG_INF1("i\n");
    KIV_LOG_INF2("f\n");
}

TEST(Debug, LineIsExact)
{
    g_debugLevel = 2;
    log_capture log;
    const int line = __LINE__ + 1;
    KIV_LOG_PRNT("Version : %s\n", "0.1.0");
    const std::string out = log.out();
    int fraction = -1;
    ASSERT_EQ(std::sscanf(out.c_str(), "T   0.%d ", &fraction), 1) << out;
    char timestamp[64];
    std::snprintf(timestamp, sizeof timestamp, "T %3d.%-3d ", 0, fraction);
    EXPECT_EQ(out.substr(0, out.find('\033')), timestamp);
    EXPECT_EQ(out.substr(out.find('\033')), "\033[32m[PRNT][   KIV   ]" + std::string(27, ' ') + "TestBody " +
                                                (line < 100 ? "  " : " ") + std::to_string(line) +
                                                " : \033[0mVersion : 0.1.0\n");
    EXPECT_EQ(log.err(), "");
}

TEST(Debug, LevelDecidesWhatReachesStandardOutput)
{
    const struct {
        uint32_t level;
        const char *shown;
    } cases[] = {{0, ""},
                 {1, "ERRR "},
                 {2, "ERRR PRNT "},
                 {3, "ERRR PRNT INF1 "},
                 {KIV_DEBUG_LEVEL_ALL, "ERRR PRNT INF1 INF2 "},
                 {static_cast<uint32_t>(-1), "ERRR PRNT INF1 INF2 "}};
    for (const auto &[level, shown] : cases) {
        g_debugLevel = level;
        log_capture log;
        log_at_every_level();
        EXPECT_EQ(levels_shown(log), shown) << level;
        EXPECT_EQ(zol_test::parse_log(log.err()).size(), 1U) << "errors always reach standard error";
        EXPECT_NE(log.err().find("\033[31m[ERRR][   KIV   ]"), std::string::npos);
    }
}

TEST(Debug, DisabledEntriesDoNotEvaluateTheirArguments)
{
    g_debugLevel = 1;
    int evaluated = 0;
    log_capture log;
    KIV_LOG_PRNT("%d\n", ++evaluated);
    KIV_LOG_INF1("%d\n", ++evaluated);
    KIV_LOG_INF2("%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    KIV_LOG_ERRR("%d %d %d %d %d %d %d %d %d %d %d %d %d %d %d\n", ++evaluated, 2, 3, 4, 5, 6, 7, 8, 9, 10,
                 11, 12, 13, 14, 15);
    EXPECT_TRUE(log.has("ERRR", "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15"));
}

TEST(Debug, AssertionReportsAndGoesOn)
{
    log_capture log;
    errno = EBADF;
    KIV_ASSERT(1 + 1 == 2);
    EXPECT_EQ(log.out(), "");
    const int line = __LINE__ + 1;
    KIV_ASSERT(1 + 1 == 3);
    EXPECT_EQ(errno, EBADF) << "logging must not disturb what the caller looks at next";
    EXPECT_TRUE(
        log.has("ERRR", "ASSERT FAILED [" + std::string(__FILE__) + "][" + std::to_string(line) + "]"));
}

TEST(Debug, MessagesOfManyThreadsAreNotTorn)
{
    constexpr std::size_t threads_count = 4;
    constexpr std::size_t messages = 500;
    log_capture log;
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < threads_count; ++i) {
        threads.emplace_back([] {
            for (std::size_t n = 0; n < messages; ++n) {
                KIV_LOG_ERRR("%s\n", "all of this text belongs together");
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(log.count("ERRR", "all of this text belongs together"), threads_count * messages);
    EXPECT_EQ(zol_test::parse_log(log.err()).size(), threads_count * messages);
}

TEST(Debug, InitTakesTheConfiguredLevel)
{
    const struct {
        const char *general;
        int32_t status;
        uint32_t level;
    } cases[] = {{"<debugLevel>3</debugLevel>", KIV_OK, 3},
                 {"<debugLevel>-1</debugLevel>", KIV_OK, 4294967295U},
                 {"<debugLevel>loud</debugLevel>", KIV_ERR_SYSTEM, 2},
                 {"<other/>", KIV_ERR_SYSTEM, 2}};
    const zol_test::scratch_directory scratch;
    for (const auto &[general, status, level] : cases) {
        g_debugLevel = 2;
        log_capture log;
        const std::string file = scratch.write("conf.xml", zol_test::configuration(general));
        ASSERT_EQ(kiv_config_init(file.c_str()), 1);
        EXPECT_EQ(kiv_debug_init(), status) << general;
        EXPECT_EQ(g_debugLevel, level) << general;
        EXPECT_TRUE(log.has("PRNT", "initialize"));
        EXPECT_TRUE(log.has("PRNT", "g_debugLevel = " + std::to_string(static_cast<int32_t>(level))));
        EXPECT_EQ(log.texts("ERRR").size(), status == KIV_OK ? 0U : 1U) << "the assertion";
        EXPECT_EQ(kiv_debug_deinit(), KIV_OK);
        EXPECT_EQ(g_debugLevel, level);
        kiv_config_deinit();
    }
}

} // namespace
