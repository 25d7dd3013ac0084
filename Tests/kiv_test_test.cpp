// The test tool: its registry, its driver, and its modules, whose sleeps take a thousandth of their time.

#include "zol/kiv_test.h"

#include <getopt.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/debug_level.h"
#include "support/eventually.h"
#include "support/fake_gpio.h"
#include "support/fake_host.h"
#include "support/fake_i2c.h"
#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "support/scratch.h"
#include "support/text.h"
#include "tests/kiv_test_events/events_test.h"
#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_gpio.h"
#include "zol/kiv_i2c.h"
#include "zol/kiv_status.h"
#include "zol/kiv_token.h"

using strings = std::vector<std::string>;
using zol_test::count_of;
using zol_test::log_capture;

namespace
{

int g_handled;
unsigned g_flags;

int handle(int argc, char **, unsigned testFlags)
{
    g_handled += argc;
    g_flags = testFlags;
    return 0;
}

TEST(TestRegistry, FindsTheLatestRecordOfAName)
{
    const kiv_test_item items[] = {{"alpha", "first", "-a\n", nullptr, 0},
                                   {"beta", "second", "", handle, 0},
                                   {"alpha", "third", "-b\n", handle, 0},
                                   {nullptr, nullptr, nullptr, nullptr, 0}};
    for (const kiv_test_item &item : items) {
        ASSERT_EQ(kiv_test_util_register(&item), KIV_OK);
    }
    EXPECT_EQ(kiv_test_util_match("alpha", 3, nullptr, 2), 1);
    EXPECT_EQ(kiv_test_util_match("Alpha", 3, nullptr, 0), 0);
    EXPECT_EQ(kiv_test_util_match(nullptr, 3, nullptr, 0), 1) << "a null name is an empty one";
    EXPECT_TRUE(g_handled == 3 && g_flags == 2) << "the third record hides the first";
    log_capture log;
    kiv_test_util_print_modules("");
    kiv_test_util_print_modules("alpha");
    EXPECT_EQ(log.out(),
              "                        - \n           alpha        - third\n"
              "           beta         - second\n           alpha        - first\n"
              "  Test         : \033[32m\"alpha\"\033[0m\n  Description  : third\n  Parameters   : \n-b\n\n"
              "  Test         : \033[32m\"alpha\"\033[0m\n  Description  : first\n  Parameters   : \n-a\n\n");
    kiv_test_util_deinit();
    EXPECT_EQ(kiv_test_util_register(nullptr), KIV_ERR_INVALID_PARAM);
    const int failures = zol_test::handled_failures([&items] {
        const bool failed = kiv_test_util_register(&items[1]) == KIV_ERR_SYSTEM;
        const bool found = kiv_test_util_match("beta", 0, nullptr, 0) == 1;
        kiv_test_util_deinit();
        return failed != found && failed == !zol_test::failed_call().empty();
    });
    EXPECT_EQ(failures, 1) << "the record";
}

// Ends with a null pointer, as the arguments of a program do.
std::vector<char *> arguments_of(strings &words)
{
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return argv;
}

std::string g_options;

// Notes its options, as a module parses them, and its flags.
int note_options(int argc, char **argv, unsigned testFlags)
{
    for (int letter = 0; (letter = getopt(argc, argv, "n:ab")) != -1;) {
        g_options += std::string(1, static_cast<char>(letter)) + (letter == 'n' ? optarg : "");
        if (letter == 'b') {
            break; // in the middle of a word
        }
    }
    g_options += std::to_string(testFlags) + ' ';
    return 1;
}

TEST(TestDriver, LeavesTheSameWordsToTheModuleInEveryPass)
{
    const zol_test::scratch_directory scratch;
    const kiv_test_item item = {"probe", "", "", note_options, 0};
    const std::string file = scratch.write("conf.xml", zol_test::minimal_configuration());
    const auto run_twice = [&] {
        bool succeeded = true;
        for (const char *switches : {"-ls1", "-s0"}) {
            strings words = {"kivtest.exe", switches, "-c", file, "word", "-R",  "2",
                             "-m",          "probe",  "-n", "7",  "more", "-aba"};
            kiv_test_util_register(&item);
            succeeded &= kiv_test_main(static_cast<int>(words.size()), arguments_of(words).data()) == KIV_OK;
        }
        _exit(succeeded && g_options == "n7ab3 n7ab3 n7ab0 n7ab0 "
                  ? 7
                  : 1); // a driver that shows its help exits with 0
    };
    EXPECT_EXIT(run_twice(), testing::ExitedWithCode(7), "");
}

TEST(TestDriver, RunsTheTestsOfAllWithItsParameters)
{
    const zol_test::scratch_directory scratch;
    const zol_test::fake_host host(scratch.path());
    std::string content = zol_test::minimal_configuration();
    content.replace(content.find("<debugLevel>1"), 13, "<debugLevel>2");
    const std::string file = scratch.write("conf.xml", content);
    const log_capture log;
    zol_test::set_debug_level(2);
    strings words = {"kivtest.exe", "-c", file, "-ls5", "-r", "0x12fff", "-b5", "-d24", "-v", "0x107", "-e9"};
    EXPECT_EQ(kiv_test_main(static_cast<int>(words.size()), arguments_of(words).data()), KIV_OK);
    EXPECT_EQ(count_of(log.out(), "pData(sync "), 5U);
    for (const char *of_another_test : {"MENU", "shalom", "CPU_BENCH", "TOKEN {", "ASSERT"}) {
        EXPECT_EQ(count_of(log.out(), of_another_test), 0U) << of_another_test;
    }
    EXPECT_TRUE(g_params.isFreePlay == 1 && g_params.isSimulator == 1 && g_params.isForceDebug == 0);
    EXPECT_TRUE(g_params.i2c_reg == 0x2fff && g_params.i2c_bus == 5 && g_params.i2c_addr == 24);
    EXPECT_TRUE(g_params.i2c_val == 7 && g_params.eventId == 9 && g_params.repeatNum == 1);
    EXPECT_TRUE(log.has("PRNT", "event id   : 9"));
    EXPECT_TRUE(log.has("PRNT", "reg               : 0x2fff"));
}

TEST(TestDriver, RegisterTestsReturnTheirVerdicts)
{
    const zol_test::scratch_directory scratch;
    zol_test::fake_i2c bus;
    const std::string file = scratch.write(
        "conf.xml",
        zol_test::configuration("<i2c_buses_num>1</i2c_buses_num><i2c_bus_1_dev>/dev/null</i2c_bus_1_dev>"));
    EXPECT_TRUE(kiv_config_init(file.c_str()) == 1 && kiv_i2c_init() == KIV_OK);
    for (const auto &[number, fails_from, verdict] : {std::array{1, -1, 1}, {1, 0, 0}, {7, -1, 0}}) {
        g_params.i2c_bus = static_cast<uint32_t>(number);
        bus.fails_from = fails_from;
        EXPECT_EQ(_test_kiv_i2c_read(0), verdict);
        EXPECT_EQ(_test_kiv_i2c_write(1), verdict);
    }
    kiv_i2c_deinit();
    kiv_config_deinit();
}

class Modules : public testing::Test
{
protected:
    // Runs a module as the driver does, with the options that are left to it.
    static int run(kiv_test_handler module, strings words)
    {
        words.insert(words.begin(), "kivtest.exe");
        optind = 0; // getopt forgets the command line before, which is gone
        zol_test::set_debug_level(2);
        return module(static_cast<int>(words.size()), arguments_of(words).data(), 0);
    }

    zol_test::scratch_directory scratch_;
    zol_test::fake_host host_{scratch_.path(), "/media/internal"};
    log_capture log_;
};

TEST_F(Modules, ThreadTestPrintsEveryMessage)
{
    EXPECT_EQ(run(_test_kiv_thread, {}), 1);
    const std::string from = " : thread(threadA) msgId(";
    const std::string out = log_.out();
    const std::size_t lines = count_of(out, from);
    EXPECT_EQ(count_of(out, from + "100) pData(Shalom          ) - handle\n"), 5U);
    EXPECT_EQ(count_of(out, from + "100) pData(sync            ) - handle\n"), 5U);
    EXPECT_EQ(count_of(out, from + "  3) pData(timeout         ) - handle\n"), lines - 5 - 5 - 1);
    EXPECT_EQ(count_of(out, std::to_string(lines - 1) + from + "  2) pData(?!?             ) - handle\n"),
              1U);
    EXPECT_TRUE(log_.has("PRNT", "sending 5 messages"));

    const int failures = zol_test::handled_failures(
        [] { return (run(_test_kiv_thread, {}) == 1) == zol_test::failed_call().empty(); });
    EXPECT_GE(failures, 10 + 5) << "a stop without memory among them";
}

TEST_F(Modules, TokenTestReturnsItsVerdict)
{
    std::snprintf(g_tokensPath, sizeof g_tokensPath, "%s", scratch_.path().c_str());
    EXPECT_EQ(run(_kiv_test_tokens, {}), 0);
    scratch_.write("ACCELCAL", "{}");
    EXPECT_EQ(run(_kiv_test_tokens, {}), 0);
    scratch_.write("ACCELCAL.xml", "<r/>");
    EXPECT_EQ(run(_kiv_test_tokens, {}), 1) << "what the token lacks is in the log";
    kiv_token_deinit();
}

// Each failure of the library is in the log of the test that met it, and in its verdict.
TEST_F(Modules, GpioTestsFailWhenOneOfTheirStepsDoes)
{
    const zol_test::fake_gpio pins;
    const auto clean_up = [] {
        kiv_gpio_init();
        while (kiv_gpio_free(17) == KIV_OK) {
        }
        kiv_gpio_deinit();
    };
    const auto verdicts_agree = [&] {
        log_capture log;
        kiv_gpio_init();
        run(test_gpio, {"-c", "1", "-e", "17", "-d", "-r", "17"});
        std::size_t reports = 0;
        for (const char *report : {"failed freeing gpio 17 cycle count ", "failed requesting gpio 17",
                                   "failed initializing cycle ", "failed to register gpio 17 cycle count ",
                                   "failed to unregister gpio 17 cycle count "}) {
            reports += count_of(log.out(), report);
        }
        const bool agrees = count_of(log.out(), "Test FAILED!") == reports &&
                            count_of(log.out(), "Test PASSED!") + reports == 3;
        clean_up();
        clean_up(); // the first one may have met the failure
        return agrees && (reports == 0 || !zol_test::failed_call().empty());
    };
    EXPECT_TRUE(verdicts_agree()); // after which the fake has all its nodes
    EXPECT_GE(zol_test::handled_failures(verdicts_agree), 30);
}

TEST_F(Modules, EventsTestsEndWithoutTheirEvents)
{
    kiv::events_test::listener_info info = {1, 3, {"nobody"}, 0, 0, {}, 0, false};
    kiv::events_test::__listener(&info);
    EXPECT_EQ(log_.count("ERRR", "waitfor returned err -10"), 3U);
    EXPECT_TRUE(info.failed == 1 && info.ended && info.received == 0);
    const int failures = zol_test::handled_failures([] {
        log_capture log;
        run(test_events, {"-3", "2"});
        return count_of(log.out(), "Test FAILED!") == (zol_test::failed_call().empty() ? 0U : 1U);
    });
    EXPECT_GE(failures, 2) << "a group of each cycle";
}

TEST_F(Modules, StressWorkersWriteTheirFiles)
{
    const auto size_of = [this](const std::string &name) {
        std::error_code error;
        return std::filesystem::file_size(scratch_.path() / name, error);
    };
    EXPECT_EQ(run(_kiv_test_biostress, {"-t", "3", "-f", "2", "-s", "5000", "-d", "1000"}), 1);
    EXPECT_EQ(count_of(log_.out(), "param [ 3 /  9] is 't' (116)\nthreads is 3\n"), 1U);
    EXPECT_GT(count_of(log_.out(), "t(  0.") + count_of(log_.out(), "t(  1."), 0U)
        << "seconds since the start";
    EXPECT_TRUE(zol_test::eventually([&] { // a slow machine needs more than a run
        return size_of("stress_0_file_0.bin") == 5000 || run(_kiv_test_biostress, {"-t", "3"}) != 1;
    }));
    EXPECT_TRUE(size_of("stress_0_file_2.bin") == 5000 && size_of("stress_0_file_3.bin") != 5000);
    for (const std::string worker : {"0", "1", "2"}) {
        EXPECT_EQ(size_of("stress_" + worker + "_file_1.bin"), 5000U) << "the exit message made it write";
    }
    EXPECT_TRUE(log_.texts("ERRR").empty());
    EXPECT_GE(count_of(log_.out(), "\033[36mstopping thread (stress)(2)\n\033[0m"), 1U);
    EXPECT_EQ(run(_kiv_test_biostress, {"-t", "250", "-t", "0"}), 1);
    EXPECT_EQ(count_of(log_.out(), "threads is 100\n"), 1U);
}

// Each run meets the same failure many times.
TEST_F(Modules, StressWorkersReportEachCauseOnce)
{
    const std::string name = "stress_0_file_";
    const struct {
        const char *target, *error, *cause;
    } cases[] = {{"/dev/null", "File ", " holds 0 bytes, 5000 were written"},
                 {"/dev/full", "Can't write file ", ", errno 28"},
                 {"none/file", "Can't open file ", ", errno 2"}};
    for (const auto &[target, error, cause] : cases) {
        for (const char *file : {"0.bin", "1.bin"}) {
            std::filesystem::remove(scratch_.path() / (name + file));
            std::filesystem::create_symlink(target, scratch_.path() / (name + file));
        }
        log_capture log;
        EXPECT_EQ(run(_kiv_test_biostress, {"-t", "1", "-f", "1", "-s", "5000", "-d", "0"}), 1);
        EXPECT_EQ(log.texts("ERRR"), strings{error + ("/media/internal/" + name) + "1.bin" + cause});
    }
}

TEST_F(Modules, BenchmarkRunsItsOptionsInOrder)
{
    EXPECT_EQ(run(_zol_test_cpubench, {"-l", "3", "-c", "2", "-d", "1", "-p"}), 1);
    const std::string measured = log_.out();
    const auto after = [&measured](const std::string &label) {
        return std::atol(measured.c_str() + measured.find(label) + label.size());
    };
    EXPECT_GE(after("avg_usec_delta "), 2000) << "two sleeps of a millisecond";
    EXPECT_GE(after("max_usec_delta "), after("avg_usec_delta "));
    EXPECT_EQ(count_of(measured, "pre more than post"), 0U);
    EXPECT_EQ(run(_zol_test_cpubench, {"-l", "2500", "-m", "-l", "3", "-d", "1", "-s", "10", "-p", "-1"}), 1);
    const std::string out = log_.out();
    EXPECT_LT(out.find("size_bytes 4097, loop_cnt 2500\n"),
              out.find("spin_cnt: 10, sleep_cnt: 1, sleep_duration_ms: 1, loop_cnt: 3\n"));
    EXPECT_EQ(count_of(out, "max_usec_delta"), 1U + 2U);
    EXPECT_EQ(count_of(out, "failed selecting"), 0U);
    EXPECT_EQ(count_of(out, "\033[36m" + std::string(68, '=') + "\n\033[0m"), 3U + 3U + 3U + 3U);
    EXPECT_TRUE(log_.texts("ERRR").empty());
    EXPECT_EQ(run(_zol_test_cpubench, {"-l", "0", "-p", "-z", "-1", "-l", "1", "-m"}), 1);
    EXPECT_EQ(count_of(log_.out(), "avg_usec_delta 0 [usec]"), 1U);
    EXPECT_TRUE(log_.has("ERRR", "_zol_cpu_mmapbench, failed allocating -1 bytes (errno 12)"));
}

} // namespace
