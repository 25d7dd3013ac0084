// The tool's own test modules, with sleeps that take a hundredth of their time.

#include <getopt.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/fake_host.h"
#include "support/log_capture.h"
#include "support/scratch.h"
#include "support/text.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_test.h"

using strings = std::vector<std::string>;
using zol_test::count_of;
using zol_test::log_capture;

namespace
{

class Modules : public testing::Test
{
protected:
    // Runs a module as the driver does, with the options that are left to it.
    static int run(kiv_test_handler module, strings options)
    {
        options.insert(options.begin(), "kivtest.exe");
        std::vector<char *> argv;
        for (std::string &option : options) {
            argv.push_back(option.data());
        }
        argv.push_back(nullptr);
        optind = 0; // getopt forgets the command line before, which is gone
        g_debugLevel = 2;
        return module(static_cast<int>(options.size()), argv.data(), 0);
    }

    zol_test::scratch_directory scratch_;
    zol_test::fake_host host_{scratch_.path(), "/media/internal"};
};

TEST_F(Modules, ThreadTestPrintsEveryMessage)
{
    log_capture log;
    EXPECT_EQ(run(_test_kiv_thread, {}), 1);
    const std::string from = " : thread(threadA) msgId(";
    EXPECT_EQ(count_of(log.out(), from + "100) pData(Shalom          ) - handle\n"), 5U);
    EXPECT_EQ(count_of(log.out(), from + "100) pData(sync            ) - handle\n"), 5U);
    EXPECT_EQ(count_of(log.out(), "   10" + from + "  2) pData(?!?             ) - handle\n"), 1U);
    EXPECT_TRUE(log.has("PRNT", "sending 5 messages"));
}

TEST_F(Modules, StressWorkersWriteTheirFiles)
{
    log_capture log;
    EXPECT_EQ(run(_kiv_test_biostress, {"-t", "3", "-f", "2", "-s", "5000", "-d", "1000"}), 1);
    EXPECT_EQ(count_of(log.out(), "param [ 3 /  9] is 't' (116)\nthreads is 3\n"), 1U);
    EXPECT_TRUE(log.texts("ERRR").empty());
    for (const std::string worker : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::file_size(scratch_.path() / ("stress_" + worker + "_file_1.bin")), 5000U)
            << "the exit message made it write";
    }
    EXPECT_EQ(count_of(log.out(), "\033[36mstopping thread (stress)(2)\n\033[0m"), 1U);

    EXPECT_EQ(run(_kiv_test_biostress, {"-t", "250", "-t", "0"}), 1);
    EXPECT_EQ(count_of(log.out(), "threads is 100\n"), 1U);
    const std::filesystem::path file = scratch_.path() / "stress_0_file_1.bin";
    std::filesystem::remove(file);
    std::filesystem::create_symlink("/dev/null", file);
    run(_kiv_test_biostress, {"-t", "1"});
    EXPECT_TRUE(log.has("ERRR", "File /media/internal/stress_0_file_1.bin holds 0 bytes, 5000 were written"));
    std::filesystem::remove_all(scratch_.path());
    run(_kiv_test_biostress, {"-t", "1"});
    EXPECT_TRUE(log.has("ERRR", "Can't open file /media/internal/stress_0_file_1.bin, errno 2"));
}

TEST_F(Modules, BenchmarkRunsItsOptionsInOrder)
{
    log_capture log;
    EXPECT_EQ(run(_zol_test_cpubench, {"-l", "2500", "-m", "-l", "3", "-d", "1", "-s", "10", "-p", "-1"}), 1);
    const std::string out = log.out();
    EXPECT_LT(out.find("size_bytes 4097, loop_cnt 2500\n"),
              out.find("spin_cnt: 10, sleep_cnt: 1, sleep_duration_ms: 1, loop_cnt: 3\n"));
    EXPECT_EQ(count_of(out, "max_usec_delta"), 2U);
    EXPECT_EQ(count_of(out, "\033[36m" + std::string(68, '=') + "\n\033[0m"), 3U + 3U + 3U);
    EXPECT_TRUE(log.texts("ERRR").empty());
    EXPECT_EQ(run(_zol_test_cpubench, {"-l", "0", "-p", "-z", "-1", "-l", "1", "-m"}), 1);
    EXPECT_EQ(count_of(log.out(), "avg_usec_delta 0 [usec]"), 1U);
    EXPECT_TRUE(log.has("ERRR", "_zol_cpu_mmapbench, failed allocating -1 bytes (errno 12)"));
}

} // namespace
