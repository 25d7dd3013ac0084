// The GPIO test of kivtest.exe on the virtual board: its scripted tests, its console, interrupts from the
// bench.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/tsan.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "system/on_board.h"

using zol_test::command_result;
using strings = std::vector<std::string>;

namespace
{

constexpr char board_xml[] = R"(<board>
  <pins first="0" last="99"/>
  <pin number="100"><fails node="irqmask" operation="open"/></pin>
</board>)";
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

bool has(const strings &texts, const std::string &text)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
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

    // Has the console at the other end of a pipe.
    void start(const std::string &driver_options = "")
    {
        talk_ = std::make_unique<zol_test::conversation>(command_on_board(
            "echo pids $$ $PPID; exec $kivtest -c Conf/kiv_test.xml " + driver_options + " -m gpio -i"));
        talk_->hear_until("pids ");
        processes_ = talk_->hear_until("\n");
        greeting_ = texts(talk_->hear_until("<cmd>: "));
    }

    strings ask(const std::string &line)
    {
        talk_->say(line + "\n");
        return texts(talk_->hear_until("<cmd>: "));
    }

    // How often the threads of the console and of its board have gone to sleep, and for how long they have
    // run.
    [[nodiscard]] std::string activity() const
    {
        const std::string line = "for process in " + processes_ +
                                 "; do grep ctxt_switches /proc/$process/task/*/status && "
                                 "cut -d ' ' -f 14,15 /proc/$process/task/*/stat || exit; done";
        const command_result result = zol_test::run_command({"/bin/sh", "-c", line});
        EXPECT_EQ(result.status, 0);
        return result.out;
    }

    // Whether nothing stirs for a second, once what was asked for is done with.
    [[nodiscard]] bool is_quiet() const
    {
#if defined(KIV_TSAN)
        return true; // its own thread never rests
#endif
        std::string before;
        std::string after = activity();
        for (int tries = 0; tries < 5 && before != after; ++tries) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            before = std::exchange(after, activity());
        }
        return before == after;
    }

    std::unique_ptr<zol_test::conversation> talk_;
    std::string processes_; // its own, and the board's
    strings greeting_;
};

TEST_F(KivtestGpio, ScriptedTests)
{
    const std::string failed_170 = "failed opening /sys/user_hw/pins/gpios/gpio_170/level";
    const struct {
        const char *options;
        strings said;
    } cases[] = {
        {"-c 3 -e 17", {"setting cnt to 3", "alloc-free test for gpio 17, cnt=3", "Test PASSED!"}},
        {"-e 17 -c 3", {"alloc-free test for gpio 17, cnt=0", "Test PASSED!", "setting cnt to 3"}},
        {"--count=2 --initdeinit", {"setting cnt to 2", "init-deinit test, cnt-2", "Test PASSED!"}},
        {"-a 17 -f 18", {"allocate gpio-17", "free gpio-18"}},
        {"-c 1 -e 170",
         {"setting cnt to 1", "alloc-free test for gpio 170, cnt=1", failed_170,
          "failed opening set level for gpio 170", "failed requesting gpio 170 cycle count 0",
          "Test FAILED!"}},
        {"-c 2 -r 17", {"setting cnt to 2", "register-unregister test, gpio-17 cnt-2", "Test PASSED!"}},
        {"-r 170",
         {"register-unregister test, gpio-170 cnt-0", failed_170, "failed opening set level for gpio 170",
          "failed requesting gpio 170", "Test FAILED!"}},
        {"-Z",
         {"invalid argument", "======= HELP =============", "Supported commands:",
          "==========================", "'-i or --interactive' \t\t: Enable interactive mode"}}};
    for (const auto &[options, expected] : cases) {
        const command_result result =
            on_board(std::string("exec $kivtest -c Conf/kiv_test.xml -m gpio ") + options);
        EXPECT_EQ(result.status, 0);
        strings said = texts(result.out);
        std::erase_if(said, [](const std::string &text) { return text.starts_with("param ["); });
        EXPECT_NE(std::search(said.begin(), said.end(), expected.begin(), expected.end()), said.end())
            << options << testing::PrintToString(said);
    }
}

TEST_F(KivtestGpio, ConsoleOnTheBoard)
{
    start();
    const strings missing = {"Failed to find the gpio - gpio is not allocated."};
    const std::pair<std::string, strings> answers[] = {
        {"help me", console_help},
        {"alloc 5", {}},
        {"set 5 7", {}},
        {"get 5", {"get gpio 5 val 1"}},
        {"reg 5 2 0", strings{"invalid value for 'level_or_edge' 2"} + console_help},
        {"reg 5 -1 0", strings{"invalid value for 'level_or_edge' -1"} + console_help},
        {"reg 5 0 9", strings{"invalid value for 'level_or_edge' 0"} + console_help},
        {"reg 5 1 -1", strings{"invalid value for 'level_or_edge' 1"} + console_help},
        {"reg 5 0 4", {}},
        {"unreg 5", {}},
        {"reg 5 1 1", {}},
        {"reg 5 0 4", {"Callback already registered.", "register cbk failed, err=-10"}},
        {"unreg 5", {}},
        {"unreg 5", {"There is no callback registered for this gpio.", "unregister cbk failed err=-10"}},
        {"free 5", {}},
        {"free 5", missing + strings{"free failed err=-10"}},
        {"get 5", missing + strings{"get failed err=-10"}},
        {"set 5 1", missing + strings{"set failed err=-10"}},
        {"reg 5 0 3", missing + strings{"register cbk failed, err=-10"}},
        {"alloc -1",
         {"failed opening /sys/user_hw/pins/gpios/gpio_-1/level", "failed opening set level for gpio -1",
          "request failed err=-20"}},
        {"alloc 100", {}},
        {"reg 100 0 3",
         {"failed opening /sys/user_hw/pins/gpios/gpio_100/irqmask", "failed opening irq for gpio 100",
          "register cbk failed, err=-20"}},
        {"set 5", strings{"Unrecognized command:", "set 5"} + console_help},
        {" ", strings{"Unrecognized command:", " "} + console_help},
        {"%s%n\x01\xff\x1b", strings{"Unrecognized command:", "%s%n\x01\xff\x1b"} + console_help},
        {std::string(5000, 'x'), strings{"Unrecognized command:", std::string(63, 'x')} + console_help}};
    EXPECT_TRUE(has(greeting_, "Interactive mode:") && has(greeting_, hashes));
    for (const auto &[line, said] : answers) {
        EXPECT_EQ(ask(line), said) << line;
    }
    EXPECT_EQ(bench("level", {"5"}), "1\n");
    EXPECT_EQ(bench("journal", {}), "1 gpio_5 level W[1] ok\n2 gpio_5 irqrequest W[1] ok\n"
                                    "3 gpio_5 irqconfig W[2] ok\n4 gpio_5 irqmask W[0] ok\n"
                                    "5 gpio_5 irqrequest W[1] ok\n6 gpio_5 irqconfig W[1] ok\n"
                                    "7 gpio_5 irqmask W[0] ok\n");
    talk_->say("get 5"); // without a line's end
    const command_result end = talk_->finish();
    EXPECT_EQ(end.status, 0) << "the end of its input ends it";
    EXPECT_TRUE(says(end, "get failed err=-10\n"));
    EXPECT_TRUE(says(end, "exiting interactive mode!\n"));
}

TEST_F(KivtestGpio, ConsoleInSimulatorMode)
{
    start("-x -s 1");
    EXPECT_TRUE(has(greeting_, "\tsimulator on"));
    EXPECT_TRUE(has(ask("alloc 170"), "get level dummy fd used.")); // which the board has not
    ask("set 170 7");
    EXPECT_EQ(ask("get 170").back(), "get gpio 170 val 7");
    EXPECT_TRUE(has(ask("reg 170 1 1"), "Command register cbk for gpio 170"));
    EXPECT_EQ(ask("get 170").back(), "get gpio 170 val 0");
    ask("free 170");
    EXPECT_EQ(ask("free 170").back(), "free failed err=-10");
    EXPECT_EQ(bench("journal", {}), "") << "the board has seen nothing of it";
    talk_->say("exiting\n"); // of which four letters count
    EXPECT_EQ(talk_->finish().status, 0);
}

TEST_F(KivtestGpio, InterruptsShowWhileItWaitsAndNothingStirsWithoutThem)
{
    start();
    for (const char *const pin : {"5", "17", "18"}) {
        ask(std::string("alloc ") + pin);
        EXPECT_EQ(ask("reg " + std::string(pin) + " 0 4"), strings{});
    }
    EXPECT_EQ(bench("raise", {"18", "3"}), "");
    for (const std::string number : {"0", "1", "2"}) {
        EXPECT_EQ(talk_->hear_until("\nGPIO cbk, gpio=18, user_data=2\n"),
                  "##################### " + number + " #######################\n");
    }
    EXPECT_TRUE(is_quiet()) << activity();
    EXPECT_EQ(bench("fail", {"17", "irq", "poll"}), "");
    EXPECT_TRUE(zol_test::eventually([this] { // what is logged comes with the next answer
        return has(ask("get 17"), "gpio 17 keeps reporting errors and is no longer watched");
    }));
    EXPECT_TRUE(is_quiet()) << "a node in error is left alone " << activity();
    EXPECT_EQ(bench("raise", {"18"}), "");
    talk_->hear_until("GPIO cbk, gpio=18, user_data=2\n");
    EXPECT_EQ(bench("mend", {"17"}), "");
    EXPECT_EQ(bench("raise", {"17"}), "") << "counted, for nobody";
    EXPECT_EQ(ask("unreg 17"), strings{});
    talk_->say("reg 17 0 4\n"); // what it brings may come before the prompt
    talk_->hear_until("GPIO cbk, gpio=17, user_data=2\n");
}

} // namespace
