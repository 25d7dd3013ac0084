// kivtest.exe as a process: its command line, start-up and exit status. Needs no board.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/scratch.h"
#include "system/command.h"

using zol_test::command_result;
using strings = std::vector<std::string>;

namespace
{

command_result kivtest(strings arguments, const std::string &directory = "")
{
    arguments.insert(arguments.begin(), KIVTEST_EXE);
    return zol_test::run_command(arguments, directory);
}

strings texts(const command_result &result, const std::string &level)
{
    strings found;
    for (const zol_test::log_line &line : zol_test::parse_log(result.out)) {
        if (line.level == level) {
            found.push_back(line.text);
        }
    }
    return found;
}

bool has(const command_result &result, const std::string &level, const std::string &text)
{
    const strings lines = texts(result, level);
    return std::find(lines.begin(), lines.end(), text) != lines.end();
}

TEST(KivtestCommandLine, Help)
{
    for (const strings &arguments :
         {strings{"-h"}, {"--help"}, {"-h", "x"}, {"-hgpio"}, {"-t", "gpio", "-h"}}) {
        const command_result result = kivtest(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_TRUE(result.out.starts_with(" Shalom, KIV kivtest.exe app - 0.1.0\n kivtest.exe help:\n"));
        EXPECT_NE(result.out.find("\n           kiv_tokens   - Test kiv_tokens module\n"
                                  "           events       - Test the kiv_events module\n"
                                  "           cpubench     - CPU benchmarking\n"
                                  "           biostress    - Stress test fs and bio\n"
                                  "           kiv_thread   - Test the kiv_thread module\n"
                                  "           gpio         - test the kiv_gpio module\n"),
                  std::string::npos);
        EXPECT_TRUE(result.out.ends_with("(requires interaction)   \n\"command\" parameters - \n\n\n"));
    }
    EXPECT_EQ(kivtest({"-h", "events"}).out,
              "  Test         : \033[32m\"events\"\033[0m\n  Description  : Test the kiv_events module\n"
              "  Parameters   : \n  -1     - TBD\n  -2     - TBD\n\n");
    EXPECT_TRUE(has(kivtest({"-h", "nosuch"}), "ERRR", "Can't findtest (nosuch)"));
    const command_result leftover = kivtest({"-t", "read_i2c", "extra"});
    EXPECT_EQ(leftover.status, 0);
    EXPECT_TRUE(has(leftover, "ERRR", "Couldn't recognize all the 3 / 4 params, quiting..."));
    EXPECT_NE(leftover.out.find(" kivtest.exe help:"), std::string::npos);
}

TEST(KivtestCommandLine, RejectedOptionsRunNothingAndFail)
{
    for (const auto &[arguments, message] :
         {std::pair{strings{"-p"}, "unknown parameters 1 [112][p][-p]"},
          {strings{"--pc"}, "unknown parameters 1 [112][p][--pc]"},
          {strings{"-f", "log"}, "unknown parameters 2 [102][f][log]"},
          {strings{"--nonsense", "-t", "kiv_i2c"}, "unknown parameters 1 [63][?][--nonsense]"}}) {
        const command_result result = kivtest(arguments);
        EXPECT_NE(result.status, 0) << message;
        EXPECT_TRUE(has(result, "ERRR", message)) << result.out;
        EXPECT_EQ(result.out.find("initialize kiv"), std::string::npos);
    }
    for (const char option : std::string("ctvrsdbmCPVDRfe")) {
        const command_result result = kivtest({std::string("-") + option});
        EXPECT_NE(result.status, 0) << option;
        EXPECT_NE(result.err.find("requires an argument"), std::string::npos) << option;
    }
}

TEST(KivtestCommandLine, OptionsReachTheRun)
{
    const command_result result =
        kivtest({"-x", "--conf", "Conf/kiv_test.xml", "--test=kiv_i2c", "--repeat", "2", "-l", "-s", "5",
                 "-d", "0x12345", "-v", "0x1ff", "-r", "ff", "-b", "99999999999"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(texts(result, "ERRR"), strings{"can't convert [99999999999] to int"});
    EXPECT_TRUE(has(result, "PRNT", "Forcing - g_debugLevel = KIV_DEBUG_LEVEL_ALL"));
    for (const char *text : {"Starting (kiv_i2c) 0/2", "End (kiv_i2c) 0/2", "End (kiv_i2c) 1/2"}) {
        EXPECT_TRUE(has(result, "INF1", text)) << text;
    }
    EXPECT_TRUE(has(result, "PRNT", "exiting application"));
    for (const char *repeat : {"0", "-1"}) {
        const command_result none = kivtest({"-x", "-R", repeat});
        EXPECT_EQ(none.status, 0);
        EXPECT_EQ(none.out.find("Starting"), std::string::npos);
        EXPECT_TRUE(has(none, "PRNT", "destruct kiv"));
    }
    const command_result module = kivtest({"-m", "kiv_tokens", "-t", "20", "anything"});
    EXPECT_EQ(module.status, 0) << "what follows -m is the module's business";
    EXPECT_NE(module.out.find("Read ACCELCAL token name(accel)"), std::string::npos);
    const command_result unknown = kivtest({"-t", "kiv_tokens", "-t", "20", "-R", "2"});
    EXPECT_EQ(unknown.status, 0);
    EXPECT_EQ(texts(unknown, "ERRR"), (strings{"unknown test: 20", "unknown test: 20"}));
}

TEST(KivtestCommandLine, ConfigurationFiles)
{
    const zol_test::scratch_directory elsewhere;
    const command_result missing = kivtest({"-c", "nowhere.xml", "-t", "kiv_i2c"}, elsewhere.path());
    EXPECT_NE(missing.status, 0);
    EXPECT_TRUE(has(missing, "ERRR",
                    "no configuration: nowhere.xml does not exist and "
                    "/usr/bin/zol_choose_conf.sh names no other"));
    const std::string broken = elsewhere.write("broken.xml", "<open>");
    EXPECT_NE(kivtest({"-c", broken, "-x"}).status, 0);
    const std::string minimal = elsewhere.write("conf.xml", zol_test::minimal_configuration());
    const command_result good = kivtest({"-c", minimal, "-t", "kiv_i2c"}, elsewhere.path());
    EXPECT_EQ(good.status, 0);
    EXPECT_EQ(good.out, "") << "level 1, and nothing went wrong";
}

TEST(KivtestTokens, DumpsAndParsesThePreparedTokens)
{
    const command_result result = kivtest({"-t", "kiv_tokens"});
    EXPECT_EQ(texts(result, "ERRR"), strings{"KIV_USE_CJSON is not defined, can't parse json tokens"});
    EXPECT_NE(
        result.out.find(" BINTOKEN {....KIV\x7f.. calibration\n}\n BINTOKEN.bin {\n"
                        "   00 01 02 03 4b 49 56 7f 80 ff 20 63 61 6c 69 62 \n   72 61 74 69 6f 6e \n}\n"),
        std::string::npos)
        << result.out;
    EXPECT_NE(
        result.out.find("Read ACCELCAL token name(accel) ver(1.2) x(12) y(-7) z(1003) good_job(good_job)\n"),
        std::string::npos);
    EXPECT_TRUE(has(result, "PRNT", "tokenSize (22)"));
    EXPECT_TRUE(has(result, "PRNT", "22 / 22"));
}

TEST(KivtestTokens, ReportsWhatIsWrongWithTheTokens)
{
    const zol_test::scratch_directory tokens;
    const std::string conf = tokens.write(
        "conf.xml", zol_test::configuration(
                        "<configName>t</configName><debugLevel>2</debugLevel><systemTokensPath>" +
                        tokens.path().string() + "</systemTokensPath><i2c_buses_num>0</i2c_buses_num>"));
    const auto assertions = [&conf] {
        return texts(kivtest({"-c", conf, "-t", "kiv_tokens"}), "ERRR").size();
    };
    EXPECT_EQ(assertions(), 6U)
        << "two tokens are missing, three assertions each; the XML token is not reached";
    tokens.write("BINTOKEN", "x");
    tokens.write("ACCELCAL", "{}");
    tokens.write("ACCELCAL.xml", "<r><faceup x='1'/><hello>h</hello></r>");
    EXPECT_EQ(assertions(), 7U)
        << "the JSON message; from the missing element t on every look-up, and their sum";
    tokens.write("BADTOKEN", "x");
    tokens.write("ACCELCAL.xml", "<r><t/><faceup x='1'/><hello>h</hello></r>");
    EXPECT_EQ(assertions(), 4U) << "the JSON message; three requests should have failed";
}

} // namespace
