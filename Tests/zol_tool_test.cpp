// The parts of zol, the one-shot tool, that a transcript cannot reach.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/scratch.h"
#include "zol/command_line.h"
#include "zol/conf_file.h"
#include "zol/i2c.h"
#include "zol/interrupt_queue.h"
#include "zol/interruption.h"
#include "zol/keys.h"
#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"
#include "zol/library_log.h"
#include "zol/output.h"

using namespace std::chrono_literals;
using zol_tool::json;

TEST(ZolJson, EscapesTextAndReplacesInvalidUtf8)
{
    const std::pair<std::string_view, const char *> cases[] = {
        {"plain /", "\"plain /\""},
        {"\"\\\n\r\t", R"("\"\\\n\r\t")"},
        {std::string_view("\0\x1f\x7f", 3), R"("\u0000\u001f\u007f")"},
        {"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", "\"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\""},
        {"\xc3", R"("\ufffd")"},                               // cut
        {"\xe2\x82x", R"("\ufffd\ufffdx")"},                   // cut in the middle of a text
        {"\xc0\x80", R"("\ufffd\ufffd")"},                     // overlong
        {"\xe0\x9f\xbf", R"("\ufffd\ufffd\ufffd")"},           // overlong
        {"\xed\xa0\x80", R"("\ufffd\ufffd\ufffd")"},           // a surrogate
        {"\xf4\x90\x80\x80", R"("\ufffd\ufffd\ufffd\ufffd")"}, // above 0x10ffff
        {"\xff", R"("\ufffd")"},
    };
    for (const auto &[text, expected] : cases) {
        EXPECT_EQ(json(text).text(), expected);
    }
}

TEST(ZolJson, WritesNumbersExactly)
{
    EXPECT_EQ(json(1764080000.123456).text(), "1764080000.123456");
    EXPECT_EQ(json(20.0).text(), "20");
    EXPECT_EQ(json(INT64_MIN).text(), "-9223372036854775808");
    EXPECT_EQ(json(std::uint8_t{65}).text(), "65");
    EXPECT_EQ(json::object({{"a", true}, {"b", json::null()}, {"c", std::vector<json>{1, "x"}}}).text(),
              R"({"a": true, "b": null, "c": [1, "x"]})");
    EXPECT_EQ(json(std::vector<json>{}).text(), "[]");
}

TEST(ZolLog, BecomesAReasonInOneLine)
{
    zol_test::log_capture streams;
    {
        zol_tool::output out;
        zol_tool::library_log log(out, false);
        EXPECT_FALSE(log.has_errors());
        KIV_LOG_ERRR("ASSERT FAILED [Src/x][%d]\n", 1);
        KIV_LOG_ERRR("failed opening %s\n", "/dev/x");
        KIV_LOG_ERRR("pin 1: its node is missing, errno %d\n", 2);
        KIV_LOG_PRNT("progress\n");
        EXPECT_TRUE(log.has_errors());
        EXPECT_EQ(log.take_reason(), "pin 1: its node is missing, errno 2 (No such file or directory)");
        EXPECT_EQ(log.take_reason(), "");
        KIV_LOG_ERRR("failed opening %s\n", "/dev/x"); // the only line there is
        EXPECT_EQ(log.take_reason(), "failed opening /dev/x");
        for (int i = 0; i < 5; ++i) {
            KIV_LOG_ERRR("error %d\n", i);
        }
        log.set_aside();
        EXPECT_EQ(log.take_reason(), "");
        KIV_LOG_ERRR("at last\n");
        EXPECT_EQ(log.take_reason(), "at last; at the start: error 0; error 1; error 2; and 2 more");
    }
    EXPECT_EQ(streams.out() + streams.err(), "");
}

TEST(ZolLog, OfAnyLengthNeverBlocks)
{
    constexpr int threads = 4;
    constexpr int lines = 5000;
    zol_test::log_capture streams;
    {
        zol_tool::output out;
        zol_tool::library_log log(out, false);
        log.report_at_once();
        std::vector<std::jthread> loggers;
        for (int i = 0; i < threads; ++i) {
            loggers.emplace_back([] {
                for (int line = 0; line < lines; ++line) {
                    KIV_LOG_ERRR("error\n");
                }
            });
        }
        loggers.clear();
        EXPECT_TRUE(log.has_reported());
    }
    std::string expected;
    for (int i = 0; i < threads * lines; ++i) {
        expected += "zol: error\n";
    }
    EXPECT_EQ(streams.err().size(), expected.size());
    EXPECT_TRUE(streams.err() == expected);
}

TEST(ZolLog, IsShownOnceAndWithoutColoursInAFile)
{
    zol_test::log_capture streams;
    {
        zol_tool::output out;
        zol_tool::library_log log(out, true);
        KIV_LOG_ERRR("an error\n");
        dprintf(STDERR_FILENO, "of another program\nwithout an end");
    }
    const std::string shown = streams.err();
    EXPECT_EQ(shown.find('\033'), std::string::npos);
    const std::size_t at = shown.find(" : an error\n");
    EXPECT_NE(at, std::string::npos);
    EXPECT_EQ(shown.find("an error", at + 8), std::string::npos);
    EXPECT_NE(shown.find("\nof another program\nwithout an end\n"), std::string::npos);
}

TEST(ZolOutput, ReportsAnAnswerThatDoesNotArrive)
{
    zol_test::log_capture streams;
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    dup2(full, STDOUT_FILENO);
    close(full);
    {
        zol_tool::output out;
        EXPECT_EQ(out.finish(0), 0);
        out.line("answer");
        EXPECT_FALSE(out.is_good());
        EXPECT_EQ(out.finish(0), 1);
        EXPECT_EQ(out.finish(3), 3);
    }
    EXPECT_EQ(streams.err().substr(0, 5), "zol: ");
}

TEST(ZolCommandLine, TakesOptionsAnywhere)
{
    static std::vector<std::string> seen;
    static constexpr zol_tool::option options[] = {{"--bus", "-b", "BUS", "", true},
                                                   {"--low", nullptr, nullptr, ""}};
    static constexpr zol_tool::command commands[] = {{"bus", "look", "WORD...", "looks",
                                                      [](zol_tool::context &with) {
                                                          seen = with.operands;
                                                          seen.push_back(with.value("--bus") +
                                                                         with.configuration);
                                                          seen.push_back(with.has("--low") ? "low" : "");
                                                          seen.push_back(with.json ? "json" : "");
                                                          return 7;
                                                      },
                                                      options}};
    zol_test::log_capture streams;
    zol_tool::output out;
    const auto run = [&out](const zol_tool::words &words) {
        seen.clear();
        return zol_tool::run_command_line(commands, words, out);
    };
    using words = std::vector<std::string>;
    EXPECT_EQ(run({"--conf", "gpio", "bus", "-b", "4", "look", "a"}),
              2); // the value of -b is taken for the verb
    EXPECT_EQ(run({"--conf", "gpio", "bus", "look", "-b4", "a", "--json", "--", "--low"}), 7);
    EXPECT_EQ(seen, (words{"a", "--low", "4gpio", "", "json"}));
    EXPECT_EQ(run({"-cx", "bus", "look", "--low", "--bus=", "-", "", "-b", "-1"}), 7); // the last one counts
    EXPECT_EQ(seen, (words{"-", "", "-1x", "low", ""}));
    EXPECT_EQ(run({"bus", "look", "a"}), 2);
    EXPECT_EQ(run({"bus", "look", "-b"}), 2);
    EXPECT_EQ(run({"bus", "look", "-b1", "--low=1"}), 2);
    EXPECT_EQ(run({"bus", "look", "-b1", "-x"}), 2);
    EXPECT_EQ(run({"bus", "look", "-b1", "--format", "x"}), 2);
    EXPECT_TRUE(seen.empty());
}

TEST(ZolRanges, AreWholeAndWithinTheLimit)
{
    using list = std::vector<std::uint16_t>;
    EXPECT_EQ(zol_tool::parse_ranges("0x0f,2-4,0-0", 0xff), (list{15, 2, 3, 4, 0}));
    EXPECT_EQ(zol_tool::parse_ranges("0-0xffff", 0xffff)->size(), 0x10000U);
    for (const char *const wrong :
         {"", ",", "1,", "-", "1-", "-1", "2-1", "256", "0-256", "1 ", "0x", "1-2-3", "4294967297"}) {
        EXPECT_FALSE(zol_tool::parse_ranges(wrong, 0xff)) << wrong;
    }
}

TEST(ZolKeys, AreMatchedAndGuessed)
{
    struct {
        const char *name;
        const char *pattern; // "": no key
        int number;
        const char *nearest;
    } const cases[] = {
        {"configName", "configName", -1, "configName"},
        {"gpio_17_bias", "gpio_#_bias", 17, "gpio_17_bias"},
        {"gpio_0_active_low", "gpio_#_active_low", 0, "gpio_0_active_low"},
        {"gpio_999999999_bias", "gpio_#_bias", 999'999'999, "gpio_999999999_bias"},
        {"gpio_1000000000_bias", "", -1, "gpio_1000000000_bias"},
        {"gpio_99999999999_bias", "", -1, "gpio_N_bias"},
        {"gpio_017_bias", "", -1, "gpio_17_bias"},
        {"gpio_17_bias_3", "", -1, "gpio_17_bias"},
        {"gpio__bias", "", -1, "gpio_N_bias"},
        {"i2c_bus_0_dev", "i2c_bus_#_dev", 0, "i2c_bus_0_dev"},
        {"i2c_buses_num", "i2c_buses_num", -1, "i2c_buses_num"},
        {"i2c_bus_num", "", -1, "i2c_buses_num"},
        {"i3c_bus_0_debug", "", -1, "i2c_bus_0_debug"},
        {"configname", "", -1, "configName"},
        {"konfigNahm", "", -1, "configName"}, // three of ten characters differ
        {"konfikNahn", "", -1, ""},
        {"debugLevel1", "", -1, "debugLevel"},
        {"_", "", -1, ""},
        {"", "", -1, ""},
    };
    for (const auto &[name, pattern, number, nearest] : cases) {
        const zol_tool::key_match match = zol_tool::match_key(name);
        EXPECT_EQ(match.key != nullptr ? match.key->pattern : "", pattern) << name;
        EXPECT_EQ(match.number, number) << name;
        EXPECT_EQ(zol_tool::nearest_key(name), nearest) << name;
    }
}

TEST(ZolConf, FindsTheValuesThatTheLibraryFinds)
{
    const std::string documents[] = {
        "<a><devices><general><k>1</k><k>2</k></general></devices></a>",
        "<a><k>1</k><devices><general/><k>2</k></devices><k>3</k></a>",
        "<devices><x><k>1</k></x><general><y><k>2</k></y></general></devices>",
        "<devices><general><general><k>1</k></general></general><k>2</k></devices>",
        "<a><general><k>1</k></general><devices/></a>",
        "<a><devices/><general><k>1</k></general></a>",
        "<a><devices><general><?k 1?><k>2</k></general></devices></a>",
        "<a><?devices?><general><k>1</k></general><devices><general><k>2</k></general></devices></a>",
        "<!DOCTYPE a [<!ENTITY k '1'>]><devices><general>&k;<k>2</k></general></devices>",
        "<!DOCTYPE a [<!ENTITY e '<k>1</k>'>]><devices><general>&e;<k>2</k></general></devices>",
        "<!DOCTYPE a [<!ENTITY e '1'>]><devices><general><k>&e;</k></general></devices>",
        "<devices><general><k>&e;</k></general></devices>",
        "<devices><general><k><!--1-->2</k></general></devices>",
        "<devices><general><k><b>1</b>2</k></general></devices>",
        "<devices><general><k><?b 1?>2</k></general></devices>",
        "<devices><general><k> <![CDATA[1]]></k></general></devices>",
        "<devices><general><!--<k>1</k>--><k/></general></devices>",
        "<devices xmlns:p='u'><general><p:k>1</p:k><k>2</k></general></devices>",
        "<devices><general><p:k>1</p:k><k>2</k></general></devices>",
        "<devices><general><k>1",
        "<devices><general></general><k>1</k></devices><k>2</k>",
        "<devices><general/></devices>",
        "k",
        "",
    };
    zol_test::log_capture streams;
    const zol_test::scratch_directory scratch;
    for (const std::string &document : documents) {
        const std::string path = scratch.write("conf.xml", document);
        const zol_tool::conf_file file = zol_tool::read_conf_file(path);
        const zol_tool::conf_element *const element = file.find("k");
        char value[64] = "";
        kiv_config_init(path.c_str());
        const bool is_found = kiv_config_get_param("general", "", "k", value, sizeof value) != 0;
        kiv_config_deinit();
        EXPECT_EQ(element != nullptr && element->value, is_found) << document;
        EXPECT_EQ(element != nullptr ? element->value.value_or("") : "", value) << document;
    }
}

TEST(ZolConf, KnowsEveryLine)
{
    const zol_test::scratch_directory scratch;
    const std::string path =
        scratch.write("conf.xml", zol_test::configuration(std::string(70'000, '\n') + "<k>1</k>"));
    const zol_tool::conf_file file = zol_tool::read_conf_file(path);
    ASSERT_NE(file.find("k"), nullptr);
    EXPECT_EQ(file.find("k")->line, 70'001);
}

TEST(ZolInterrupts, ArriveAll)
{
    constexpr int threads = 4;
    constexpr int count = 20000;
    zol_tool::interrupt_queue queue;
    std::vector<std::jthread> sources;
    for (int pin = 0; pin < threads; ++pin) {
        sources.emplace_back([&queue, pin] {
            for (int i = 0; i < count; ++i) {
                queue(pin);
            }
        });
    }
    std::array<int, threads> seen = {};
    for (int all = 0; all < threads * count;) {
        for (const zol_tool::interrupt &each : queue.take()) {
            ++seen[static_cast<std::size_t>(each.pin)];
            ++all;
        }
    }
    EXPECT_EQ(seen, (std::array<int, threads>{count, count, count, count}));
}

TEST(ZolInterruption, HoldsSignalsBackUntilAsked)
{
    zol_tool::interruption interrupted;
    EXPECT_FALSE(interrupted.comes_before(std::chrono::steady_clock::now() + 1ms));
    std::jthread other([process = getpid()] { kill(process, SIGTERM); });
    EXPECT_TRUE(interrupted.comes_before(std::chrono::steady_clock::now() + 60s));
    EXPECT_EQ(interrupted.signal(), SIGTERM);
    raise(SIGHUP);
}
