// The GPIO test of kivtest.exe on the virtual board: its scripted tests, its console, interrupts from the
// bench.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/tsan.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "system/on_board.h"

using zol_test::command_result;
using strings = std::vector<std::string>;

namespace
{

constexpr char board_xml[] = R"(<board><pins first="0" last="99"/></board>)";
constexpr char hashes[] = "###########################################";

const strings console_help = {
    "========================",
    "Interactive mode:",
    "========================",
    "'exit' \t\t\t\t: Exit interactive mode",
    "'alloc <gpio>' \t\t\t: Allocate gpio",
    "'free <gpio>' \t\t\t: Free gpio",
    "'set <gpio> <val>' \t\t\t: Setting gpio to val",
    "'get <gpio>' \t\t\t: Get gpio value",
    "'reg <gpio><level_or_edge><mode>'\t: Register callback for gpio>>>",
    "'1'-level/'0'-edge; '0'-low-level/'1'-high-level/'2'-falling-edge/'3'-rising-edge/'4'-both edges",
    "'unreg <gpio_num>'\t\t\t: UnRegister callback for gpio"};

strings operator+(strings some, const strings &more)
{
    some.insert(some.end(), more.begin(), more.end());
    return some;
}

// What is logged, without the prompt.
strings texts(const std::string &output)
{
    strings found;
    for (const zol_test::log_line &line : zol_test::parse_log(output)) {
        if (!line.text.empty()) {
            found.push_back(line.text);
        }
    }
    return found;
}

class KivtestGpio : public zol_test::OnBoardTest
{
protected:
    KivtestGpio() : OnBoardTest(board_xml) {}

    // What a run says behind its banner, about options excepted.
    [[nodiscard]] strings run(const std::string &options) const
    {
        const command_result result = on_board("exec $kivtest -c Conf/kiv_test.xml -m gpio " + options);
        EXPECT_EQ(result.status, 0);
        strings said;
        int banner_lines = 0;
        for (const std::string &text : texts(result.out)) {
            if (text == "destruct kiv") {
                return said;
            }
            if (banner_lines == 2 && !text.starts_with("param [")) {
                said.push_back(text);
            }
            banner_lines += text == hashes ? 1 : 0;
        }
        ADD_FAILURE() << result.out;
        return said;
    }
};

TEST_F(KivtestGpio, ScriptedTests)
{
    const strings help = run("");
    ASSERT_EQ(help.size(), 11U);
    EXPECT_EQ(help[0], "invalid argument");
    EXPECT_EQ(help[1], "======= HELP =============");
    EXPECT_EQ(help[10], "'-c or --count <cnt>' \t\t: Set a global count (cnt) variable");
    const struct {
        const char *options;
        strings said;
    } cases[] = {
        {"-c 3 -e 17", {"setting cnt to 3", "alloc-free test for gpio 17, cnt=3", "Test PASSED!"}},
        {"-e 17 -c 3", {"alloc-free test for gpio 17, cnt=0", "Test PASSED!", "setting cnt to 3"}},
        {"--count=2 --initdeinit", {"setting cnt to 2", "init-deinit test, cnt-2", "Test PASSED!"}},
        {"-c -1 -d", {"setting cnt to -1", "init-deinit test, cnt--1", "Test PASSED!"}},
        {"-a 17 -f 18", {"allocate gpio-17", "free gpio-18"}},
        {"-c 1 -e 170",
         {"setting cnt to 1", "alloc-free test for gpio 170, cnt=1",
          "failed opening /sys/user_hw/pins/gpios/gpio_170/level", "failed opening set level for gpio 170",
          "failed requesting gpio 170 cycle count 0", "Test FAILED!"}},
        {"-r 170 -a 1",
         {"register-unregister test, gpio-170 cnt-0", "failed opening /sys/user_hw/pins/gpios/gpio_170/level",
          "failed opening set level for gpio 170", "failed requesting gpio 170", "Test FAILED!",
          "allocate gpio-1"}},
        {"-Z -a 17", help + strings{"allocate gpio-17"}}};
    for (const auto &[options, said] : cases) {
        EXPECT_EQ(run(options), said) << options;
    }
}

TEST_F(KivtestGpio, CyclesReachTheBoard)
{
    const command_result result =
        on_board("$kivtest -x -c Conf/kiv_test.xml -m gpio -c 5 -r 17 && $kivboard journal");
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(says(result, "Test PASSED!\n"));
    std::string journal;
    for (int cycle = 0; cycle < 5; ++cycle) {
        EXPECT_TRUE(says(result, "int register test #1 gpio 17 cycle " + std::to_string(cycle) + "\n"));
        for (const char *const write : {"irqrequest W[1]", "irqconfig W[1]", "irqmask W[0]"}) {
            const long number = std::count(journal.begin(), journal.end(), '\n') + 1;
            journal += std::to_string(number) + " gpio_17 " + write + " ok\n";
        }
    }
    EXPECT_TRUE(result.out.ends_with(journal)) << result.out;
}

// The console, at the other end of a pipe.
class GpioConsole : public KivtestGpio
{
protected:
    void start(const std::string &driver_options = "", const std::string &module_options = "-i")
    {
        talk_ = std::make_unique<zol_test::conversation>(
            command_on_board("echo pid $$; exec $kivtest -c Conf/kiv_test.xml " + driver_options +
                             " -m gpio " + module_options));
        talk_->hear_until("pid ");
        process_ = "/proc/" + talk_->hear_until("\n");
        greeting_ = texts(talk_->hear_until("<cmd>: "));
    }

    strings ask(const std::string &line)
    {
        talk_->say(line + "\n");
        return texts(talk_->hear_until("<cmd>: "));
    }

    void exit()
    {
        talk_->say("exiting\n"); // of which four letters count
        const command_result end = talk_->finish();
        EXPECT_EQ(end.status, 0);
        EXPECT_TRUE(says(end, "exiting interactive mode!\n"));
    }

    // How often the threads have gone to sleep, and for how long they have run.
    [[nodiscard]] std::string activity() const
    {
        std::string sum;
        for (const auto &task : std::filesystem::directory_iterator(process_ + "/task")) {
            std::ifstream status(task.path() / "status");
            for (std::string line; std::getline(status, line);) {
                sum += line.find("ctxt_switches") != std::string::npos ? line : "";
            }
            std::ifstream stat(task.path() / "stat");
            std::string field;
            for (int number = 1; number <= 15 && stat >> field; ++number) {
                sum += number >= 14 ? " " + field : "";
            }
        }
        return sum;
    }

    // Whether nothing stirs in the process for a second, once what was asked for is done with.
    [[nodiscard]] bool is_quiet() const
    {
#if defined(KIV_TSAN)
        return true; // its own thread never rests
#endif
        for (int tries = 0; tries < 5; ++tries) {
            const std::string before = activity();
            std::this_thread::sleep_for(std::chrono::seconds(1));
            if (activity() == before) {
                return !before.empty();
            }
        }
        return false;
    }

    std::unique_ptr<zol_test::conversation> talk_;
    std::string process_;
    strings greeting_;
};

TEST_F(GpioConsole, EveryCommandOnTheBoard)
{
    start();
    const strings expected = console_help + strings{hashes};
    ASSERT_GE(greeting_.size(), expected.size());
    EXPECT_EQ(strings(greeting_.end() - static_cast<long>(expected.size()), greeting_.end()), expected);
    EXPECT_EQ(ask("help me"), console_help);
    EXPECT_EQ(ask("alloc 5"), strings{});
    EXPECT_EQ(ask("set 5 7"), strings{});
    EXPECT_EQ(bench("level", {"5"}), "1\n");
    EXPECT_EQ(ask("get 5"), strings{"get gpio 5 val 1"});
    EXPECT_EQ(bench("level", {"5", "0"}), "");
    EXPECT_EQ(ask("get 5"), strings{"get gpio 5 val 0"});
    for (const auto &[line, said] : {std::pair{"reg 5 2 0", "invalid value for 'level_or_edge' 2"},
                                     {"reg 5 -1 0", "invalid value for 'level_or_edge' -1"},
                                     {"reg 5 0 9", "invalid value for 'level_or_edge' 0"},
                                     {"reg 5 1 -1", "invalid value for 'level_or_edge' 1"}}) {
        EXPECT_EQ(ask(line), strings{said} + console_help) << line;
    }
    for (const std::string mode : {"1 0", "1 1", "0 2", "0 3", "0 4"}) {
        EXPECT_EQ(ask("reg 5 " + mode), strings{});
        EXPECT_EQ(ask("unreg 5"), strings{});
    }
    EXPECT_EQ(ask("reg 5 1 1"), strings{});
    EXPECT_EQ(ask("reg 5 0 4"), (strings{"Callback already registered.", "register cbk failed, err=-10"}));
    EXPECT_EQ(ask("unreg 5"), strings{});
    EXPECT_EQ(ask("unreg 5"),
              (strings{"There is no callback registered for this gpio.", "unregister cbk failed err=-10"}));
    EXPECT_EQ(ask("free 5"), strings{});
    const std::string missing = "Failed to find the gpio - gpio is not allocated.";
    for (const auto &[line, failure] : {std::pair{"free 5", "free failed err=-10"},
                                        {"get 5", "get failed err=-10"},
                                        {"set 5 1", "set failed err=-10"},
                                        {"reg 5 0 3", "register cbk failed, err=-10"}}) {
        EXPECT_EQ(ask(line), (strings{missing, failure}));
    }
    EXPECT_EQ(ask("alloc 170").back(), "request failed err=-20");
    exit();
}

TEST_F(GpioConsole, GarbageIsEchoedAndDoesNoHarm)
{
    start();
    for (const std::string line : {" ", "alloc", "alloc x", "set 5", "reg 5 1", "unreg", "get", "gibberish",
                                   "%s%n%n", "\x01\xff\x7f\x1b[2J"}) {
        EXPECT_EQ(ask(line), (strings{"Unrecognized command:", line}) + console_help) << line;
    }
    EXPECT_EQ(ask(std::string(5000, 'x')).at(1), std::string(63, 'x'));
    EXPECT_EQ(ask("alloc -1").back(), "request failed err=-20");
    talk_->say("get 5"); // without a line's end
    const command_result end = talk_->finish();
    EXPECT_EQ(end.status, 0) << "the end of its input ends it";
    EXPECT_TRUE(says(end, "get failed err=-10\n"));
    EXPECT_TRUE(says(end, "exiting interactive mode!\n"));
}

TEST_F(GpioConsole, SimulatorShowsStoredValues)
{
    start("-x -s 1");
    EXPECT_NE(std::find(greeting_.begin(), greeting_.end(), "\tsimulator on"), greeting_.end());
    const strings allocated = ask("alloc 170"); // which the board has not
    EXPECT_NE(std::find(allocated.begin(), allocated.end(), "get level dummy fd used."), allocated.end());
    ask("set 170 7");
    EXPECT_EQ(ask("get 170").back(), "get gpio 170 val 7");
    const strings registered = ask("reg 170 1 1");
    EXPECT_NE(std::find(registered.begin(), registered.end(), "Command register cbk for gpio 170"),
              registered.end());
    EXPECT_EQ(ask("get 170").back(), "get gpio 170 val 0");
    ask("unreg 170");
    ask("free 170");
    EXPECT_EQ(ask("free 170").back(), "free failed err=-10");
    EXPECT_EQ(bench("journal", {}), "") << "the board has seen nothing of it";
    exit();
}

TEST_F(GpioConsole, InterruptsShowWhileItWaits)
{
    start();
    ask("alloc 17");
    ask("reg 17 0 3");
    EXPECT_EQ(bench("raise", {"17", "3"}), "");
    for (const std::string number : {"0", "1", "2"}) {
        EXPECT_EQ(talk_->hear_until("\nGPIO cbk, gpio=17, user_data=2\n"),
                  "##################### " + number + " #######################\n");
    }
    EXPECT_EQ(ask("unreg 17"), strings{});
    EXPECT_EQ(bench("raise", {"17"}), "") << "counted, for nobody";
    talk_->say("reg 17 0 3\n"); // what it brings may come before the prompt
    talk_->hear_until("##################### 3 #######################\n");
    talk_->hear_until("\nGPIO cbk, gpio=17, user_data=2\n");
    exit();
}

TEST_F(GpioConsole, NothingStirsWithoutAnInterrupt)
{
    start();
    for (int pin = 0; pin < 64; ++pin) {
        ask("alloc " + std::to_string(pin));
        EXPECT_EQ(ask("reg " + std::to_string(pin) + " 0 4"), strings{});
    }
    EXPECT_TRUE(is_quiet()) << activity();
    EXPECT_EQ(bench("fail", {"17", "irq", "poll"}), "");
    EXPECT_TRUE(zol_test::eventually([this] { // what is logged comes with the next answer
        const strings said = ask("get 17");
        return std::find(said.begin(), said.end(),
                         "gpio 17 keeps reporting errors and is no longer watched") != said.end();
    }));
    EXPECT_TRUE(is_quiet()) << "a node in error is left alone " << activity();
    EXPECT_EQ(bench("raise", {"18"}), "");
    talk_->hear_until("GPIO cbk, gpio=18, user_data=2\n");
    EXPECT_EQ(bench("mend", {"17"}), "");
    EXPECT_EQ(bench("raise", {"17"}), "");
    EXPECT_EQ(ask("unreg 17"), strings{});
    talk_->say("reg 17 0 4\n");
    talk_->hear_until("GPIO cbk, gpio=17, user_data=2\n");
    exit();
}

} // namespace
