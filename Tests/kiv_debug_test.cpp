#include "zol/kiv_debug.h"

#include <gtest/gtest.h>

#include <algorithm>
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
    for (const uint32_t level : {0U, 1U, 2U, 3U, KIV_DEBUG_LEVEL_ALL + 0U, UINT32_MAX}) {
        g_debugLevel = level;
        int evaluated = 0;
        log_capture log;
        KIV_LOG_ERRR("%d\n", ++evaluated);
        KIV_LOG_PRNT("%d\n", ++evaluated);
        KIV_LOG_INF1("%d\n", ++evaluated);
        KIV_LOG_INF2("%d\n", ++evaluated);
        std::string shown;
        for (const zol_test::log_line &line : zol_test::parse_log(log.out())) {
            shown += line.level + " ";
        }
        const uint32_t levels = std::min(level, 4U);
        EXPECT_EQ(shown, std::string("ERRR PRNT INF1 INF2 ").substr(0, levels * 5)) << level;
        EXPECT_EQ(evaluated, std::max(static_cast<int>(levels), 1)) << "what is not shown is not worked out";
        EXPECT_EQ(zol_test::parse_log(log.err()).size(), 1U) << "errors always reach standard error";
        EXPECT_NE(log.err().find("\033[31m[ERRR][   KIV   ]"), std::string::npos);
    }
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
    const std::string text = "all of this text belongs together";
    log_capture log;
    std::vector<std::jthread> threads(4);
    for (std::jthread &thread : threads) {
        thread = std::jthread([&text] {
            for (int n = 0; n < 500; ++n) {
                KIV_LOG_ERRR("%s\n", text.c_str());
            }
        });
    }
    threads.clear(); // joins them
    EXPECT_EQ(log.count("ERRR", text), 4U * 500U);
    EXPECT_EQ(zol_test::parse_log(log.err()).size(), 4U * 500U);
}

TEST(Debug, InitTakesTheConfiguredLevel)
{
    const struct {
        std::string level;
        int32_t status;
        uint32_t taken;
    } cases[] = {{"3", KIV_OK, 3}, {"-1", KIV_OK, UINT32_MAX}, {"loud", KIV_ERR_SYSTEM, 2}};
    const zol_test::scratch_directory scratch;
    for (const auto &[level, status, taken] : cases) {
        g_debugLevel = 2;
        log_capture log;
        const std::string xml = zol_test::configuration("<debugLevel>" + level + "</debugLevel>");
        ASSERT_EQ(kiv_config_init(scratch.write("conf.xml", xml).c_str()), 1);
        EXPECT_EQ(kiv_debug_init(), status) << level;
        EXPECT_TRUE(log.has("PRNT", "initialize"));
        EXPECT_TRUE(log.has("PRNT", "g_debugLevel = " + std::to_string(static_cast<int32_t>(taken))));
        EXPECT_EQ(log.texts("ERRR").size(), status == KIV_OK ? 0U : 1U) << "the assertion";
        EXPECT_EQ(kiv_debug_deinit(), KIV_OK);
        EXPECT_EQ(g_debugLevel, taken) << level;
        kiv_config_deinit();
    }
}

} // namespace
