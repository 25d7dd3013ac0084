#include "zol/kiv_debug.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_fd.h"
#include "support/fake_host.h"
#include "support/forked.h"
#include "support/log_capture.h"
#include "support/text.h"
#include "zol/zol.h"

using zol_test::log_capture;
using strings = std::vector<std::string>;

namespace
{

// The time counts from the beginning of the second of the first line.
TEST(Debug, WritesTheExactLine)
{
    struct row {
        int seconds;
        int microseconds;
        const char *timestamp;
    };
    g_debugLevel = 2;
    log_capture log;
    zol_test::fake_host host;
    std::string expected;
    for (const auto &[seconds, microseconds, timestamp] :
         {row{100, 900'000, "T   0.900 "}, row{101, 100'999, "T   1.100 "}, row{105, 42'000, "T   5.42  "},
          row{1105, 999, "T 1005.0   "}}) {
        host.set_time(seconds, microseconds);
        KIV_LOG_PRNT("Version : %s\n", "0.1.0");
        expected += timestamp + ("\033[32m[PRNT][   KIV   ]" + std::string(27, ' ')) + "TestBody   " +
                    std::to_string(__LINE__ - 2) + " : \033[0mVersion : 0.1.0\n";
    }
    EXPECT_EQ(log.out(), expected);
}

// The library formats simple conversions by itself, and leaves the rest of a line to the C library.
#define EXPECT_AS_PRINTED(...)                                                                               \
    do {                                                                                                     \
        char expected[3000];                                                                                 \
        std::snprintf(expected, sizeof expected, __VA_ARGS__);                                               \
        log_capture log;                                                                                     \
        KIV_LOG_PRNT("<" __VA_ARGS__);                                                                       \
        const std::string out = log.out();                                                                   \
        EXPECT_EQ(out.substr(out.find('<') + 1), expected);                                                  \
    } while (0)

TEST(Debug, FormatsLikePrintf)
{
    g_debugLevel = 2;
    for (const int value : {0, 1, 9, 10, -10, 99, 100, 9999, 10000, -12345678, INT_MAX, INT_MIN}) {
        EXPECT_AS_PRINTED("%d|%i|%3d|%-3d|%03d|%-12d|%012d|%99d|%099d\n", value, value, value, value, value,
                          value, value, value, value);
        const auto bits = static_cast<unsigned>(value);
        EXPECT_AS_PRINTED("%u|%x|%12u|%-12x|%02x|%08x|%99x\n", bits, bits, bits, bits, bits, bits, bits);
    }
    const char *volatile no_text = nullptr; // volatile, so that the compiler does not see it
    const std::string name = "name";
    const std::string very_long(2000, 'l');
    for (const char *const text : {"", "a", "exactly eight"}) {
        EXPECT_AS_PRINTED("%s|%8s|%-8s|%.3s|%-8.3s|%s", text, text, text, text, text, text);
    }
    EXPECT_AS_PRINTED("%s%s%d", very_long.c_str(), name.c_str(), 7);
    EXPECT_AS_PRINTED("%4d%s%d", 6, no_text, 7);
    EXPECT_AS_PRINTED("%d%% of %300d %c %p %ld %5.2f %s %#x %+d", 1, 2, 'c', static_cast<void *>(nullptr), 3L,
                      4.0, "5", 6U, 7);
    for (const std::size_t size :
         {300U, 310U, 380U, 420U, 425U, 430U, 512U}) { // the end of the library's own room
        const std::string text(size, 't');
        EXPECT_AS_PRINTED("%s%s%d%-50s%d\n", text.c_str(), name.c_str(), 1, "x", 2);
        EXPECT_AS_PRINTED("%s%250d\n", text.c_str(), 3);
    }
}

TEST(Debug, ShowsTheLevelsUpToTheConfiguredOne)
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
        EXPECT_EQ(evaluated, std::max(static_cast<int>(levels), 1)) << "only shown arguments are evaluated";
        EXPECT_EQ(zol_test::parse_log(log.err()).size(), 1U) << "errors always reach standard error";
        EXPECT_NE(log.err().find("\033[31m[ERRR][   KIV   ]"), std::string::npos);
    }
}

TEST(Debug, AssertionReportsAndKeepsErrno)
{
    log_capture log;
    KIV_ASSERT(1 + 1 == 2);
    EXPECT_EQ(log.out(), "");
    const kiv::unique_fd captured(dup(STDERR_FILENO));
    const kiv::unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    dup2(full.get(), STDERR_FILENO); // the write fails, and so sets errno
    errno = EBADF;
    const int line = __LINE__ + 1;
    KIV_ASSERT(1 + 1 == 3);
    EXPECT_EQ(errno, EBADF);
    kiv_lock(); // not started: the library itself logs
    EXPECT_EQ(errno, EBADF);
    dup2(captured.get(), STDERR_FILENO);
    EXPECT_EQ(log.texts("ERRR").at(0),
              "ASSERT FAILED [" + std::string(__FILE__) + "][" + std::to_string(line) + "]");
    EXPECT_EQ(log.texts("ERRR").at(2), "the library is not initialized");
}

// Other threads hold the log's lock while this one forks, and nobody in the child would release it.
TEST(Debug, KeepsLinesOfManyThreadsWholeAndLogsInAForkedChild)
{
    const kiv::unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    log_capture log;
    std::atomic<std::size_t> logged{0};
    std::vector<std::jthread> threads(3);
    for (std::jthread &thread : threads) {
        thread = std::jthread([&logged](const std::stop_token &stop) {
            for (; !stop.stop_requested(); ++logged) {
                KIV_LOG_ERRR("all of this text belongs together\n");
            }
        });
    }
    for (int n = 0; n < 20; ++n) {
        EXPECT_TRUE(zol_test::holds_in_child([&null] {
            dup2(null.get(), STDOUT_FILENO); // the parent writes what it has buffered
            dup2(null.get(), STDERR_FILENO);
            KIV_LOG_ERRR("of the child\n");
            return true;
        }));
    }
    threads.clear(); // joins them
    EXPECT_EQ(log.count("ERRR", "all of this text belongs together"), logged);
    EXPECT_EQ(zol_test::count_of(log.err(), "all of this text belongs together\n"), logged);
}

TEST(Debug, SurvivesACancelledThread)
{
    log_capture log;
    std::thread([] {
        pthread_cancel(pthread_self()); // takes effect at the next cancellation point
        KIV_LOG_ERRR("written whole\n");
        pthread_testcancel();
        KIV_LOG_ERRR("never reached\n");
    }).join();
    KIV_LOG_ERRR("the next line\n");
    EXPECT_EQ(log.texts("ERRR"), (strings{"written whole", "the next line"}));
}

} // namespace
