// The events test of kivtest.exe: its scripted tests, and its console.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/text.h"
#include "system/command.h"

using zol_test::command_result;
using zol_test::count_of;
using strings = std::vector<std::string>;

namespace
{

strings events_test(const strings &options)
{
    strings words = {KIVTEST_EXE, "-c", "Conf/kiv_test.xml", "-m", "events"};
    words.insert(words.end(), options.begin(), options.end());
    return words;
}

TEST(KivtestEvents, ScriptedTestsPass)
{
    const struct {
        strings options;
        std::size_t passed;
    } cases[] = {{{"-1", "0"}, 1},
                 {{"--test01", "600"}, 1}, // more than the pipes hold
                 {{"-2"}, 1},              // disabled events stay silent for ten seconds
                 {{"-1", "1", "--create_delete_group", "2", "-3", "0"}, 3}};
    for (const auto &[options, passed] : cases) {
        const command_result result = zol_test::run_command(events_test(options));
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(count_of(result.out, "\nTest PASSED!\n"), passed) << result.out;
        EXPECT_EQ(result.err, "");
    }
}

TEST(KivtestEvents, OtherOptionsShowTheUsage)
{
    for (const auto &[option, param] :
         {std::pair{"-ax", "'a' (97)"}, {"--count=x", "'c' (99)"}, {"-Z", "'?' (63)"}}) {
        const std::string out = zol_test::run_command(events_test({option})).out;
        EXPECT_EQ(count_of(out, std::string("###\nparam [ 6 /  6] is ") + param + "\ninvalid argument\n="),
                  1U)
            << out;
        EXPECT_EQ(count_of(out, "\t: Execute create-delete event group test <iter_count> iterations\n"), 1U);
    }
}

class EventsConsole : public testing::Test
{
protected:
    EventsConsole() { greeting_ = talk_.hear_until("<cmd>: "); }

    std::string ask(const std::string &line)
    {
        talk_.say(line + "\n");
        return talk_.hear_until("<cmd>: ");
    }

    // The number between a text and the end of the answer, as it is to be typed back.
    std::string id_of(const std::string &command, const std::string &before, const std::string &after = "\n")
    {
        const std::string answer = ask(command);
        EXPECT_TRUE(answer.starts_with(before) && answer.ends_with(after)) << answer;
        return answer.substr(before.size(), answer.size() - before.size() - after.size());
    }

    // The line of an answer that is not the log's.
    static std::string said(const std::string &answer)
    {
        const std::size_t log_end = answer.rfind("\033[0m");
        const std::size_t from = log_end == std::string::npos ? 0 : answer.find('\n', log_end) + 1;
        return answer.substr(from);
    }

    zol_test::conversation talk_{events_test({"-i"})};
    std::string greeting_;
};

constexpr char help[] =
    "========================\nInteractive mode:\n========================\n"
    "'exit' \t\t\t\t: Exit interactive mode\n"
    "'alloc group  <name>\t\t: Allocate event group called <name>\n"
    "'free group <id>' \t\t\t: Free event-group with ID number <id>\n"
    "'create <name> <data_sz> <groupid>'\t: Create event-item\n"
    "'delete <id>' \t\t\t: Delete event-item with ID number <id>>\n"
    "'notify <event id> <text-msg>'\t: Sends <text-msg> via <event id>\n"
    "'waitfor <name> <timeout> <iter>'\t: Waits <iter> times for event called <event-name> for <timeout>.\n"
    "'getfd <name>'\t\t\t: Get the fd to wait on for event <name>\n"
    "'dumpall' \t\t\t: Dump event DB\n";

TEST_F(EventsConsole, EveryCommandAnswers)
{
    EXPECT_TRUE(greeting_.ends_with(std::string(help) + "###########################################\n"));
    EXPECT_EQ(ask("help me"), help);
    const std::string group = id_of("alloc group sensors", "event group created, ID = ");
    const std::string door = id_of("create door 64 " + group, "created event (ID=", ")\n");
    const std::string gate = id_of("create gate -1 " + group, "created event (ID=", ")\n");
    EXPECT_NE(id_of("getfd door", "get event fd for door :"), id_of("getfd gate", "get event fd for gate :"));
    EXPECT_EQ(ask("notify " + door + " hello"), "");
    EXPECT_EQ(ask("notify_name gate hello"), "");
    const std::string dump = ask("dumpall");
    EXPECT_LT(dump.find("pname: sensors\n"), dump.find("(" + gate + ")\n"));
    EXPECT_LT(dump.find("(" + gate + ")\n"), dump.find("(" + door + ")\n"));
    EXPECT_EQ(said(ask("free group " + group)), "delete group failed err=-70\n");
    EXPECT_EQ(ask("delete " + door), "deleted event (ID=" + door + ")\n");
    EXPECT_EQ(ask("delete_name gate"), "deleted event (gate)\n");
    EXPECT_EQ(ask("free group " + group), "");

    for (const auto &[command, what] : {std::pair{"create door 64 " + group, "create event"},
                                        {"delete " + door, "delete event"},
                                        {"delete_name gate", "delete event"},
                                        {"notify " + door + " x", "notify event"},
                                        {"notify_name gate x", "notify event"},
                                        {"free group " + group, "delete group"},
                                        {"getfd door", "get event fd"}}) {
        EXPECT_EQ(said(ask(command)), std::string(what) + " failed err=-10\n") << command;
    }
    talk_.say("exit now\n");
    EXPECT_EQ(talk_.hear_until("\n"), "exiting interactive mode!");
    EXPECT_EQ(talk_.finish().status, 0);
}

TEST_F(EventsConsole, ListenersRunOnAside)
{
    ask("create door 64 " + id_of("alloc group sensors", "event group created, ID = "));
    std::string heard = ask("waitfor door 0 1"); // goes on for ever, which holds up nothing
    heard += ask("waitfor door 1000 3") + ask("waitfor nobody 0 2");
    for (const std::string report : {"Going to wait for 1 events 3 times\n", "waitfor returned err -61\n",
                                     "Going to wait for 1 events 2 times\n", "waitfor returned err -10\n"}) {
        for (int tries = 0; tries < 100'000 && heard.find(report) == std::string::npos; ++tries) {
            heard += ask("getfd door"); // what is asked for brings along what has come
        }
        EXPECT_GE(count_of(heard, report), 1U) << report;
    }
    EXPECT_EQ(talk_.finish().status, 0);
}

TEST_F(EventsConsole, GarbageIsEchoedAndDoesNoHarm)
{
    const auto unknown = [](const std::string &line) {
        return "Unrecognized command:\n" + line + "\n" + help;
    };
    for (const std::string line : {"", "dump", "alloc group", "create door x 1", "delete x", "notify 1",
                                   "free group x", "waitfor door 1", "%s%n%n", "\x01\xff\x7f\x1b[2J"}) {
        EXPECT_EQ(ask(line), unknown(line));
    }
    EXPECT_EQ(ask(std::string(5000, 'x')), unknown(std::string(63, 'x')));
    EXPECT_EQ(ask(std::string("cut\0off", 7)), unknown("cut"));
    for (const std::string number : {"0", "-1", "1", "99999999999999999999999", "-99999999999999999999999"}) {
        EXPECT_EQ(said(ask("delete " + number)), "delete event failed err=-10\n");
        EXPECT_EQ(said(ask("notify " + number + " x")), "notify event failed err=-10\n");
        EXPECT_EQ(said(ask("free group " + number)), "delete group failed err=-10\n");
    }
    talk_.say("getfd unfinished");
    const command_result end = talk_.finish();
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(count_of(end.out, "get event fd failed err=-10\n<cmd>: "), 1U) << "the last line has no end";
    EXPECT_EQ(count_of(end.out, "exiting"), 1U) << "the application's only";
}

} // namespace
