// The events test of kivtest.exe: its scripted tests, and its console.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/scratch.h"
#include "system/command.h"

using zol_test::command_result;
using strings = std::vector<std::string>;

namespace
{

strings events_test(const strings &options)
{
    strings words = {KIVTEST_EXE, "-c", "Conf/kiv_test.xml", "-m", "events"};
    words.insert(words.end(), options.begin(), options.end());
    return words;
}

std::size_t count(const std::string &text, const std::string &part)
{
    std::size_t found = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++found;
    }
    return found;
}

TEST(KivtestEvents, ScriptedTestsPass)
{
    const struct {
        strings options;
        std::size_t passed;
    } cases[] = {{{"-1", "3"}, 1},
                 {{"-1", "0"}, 1},
                 {{"--test01", "600"}, 1}, // more than the pipes hold
                 {{"-3", "0", "-3", "5"}, 2},
                 {{"-1", "1", "--create_delete_group", "2", "-1", "2"}, 3}};
    for (const auto &[options, passed] : cases) {
        const command_result result = zol_test::run_command(events_test(options));
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(count(result.out, ")\nTest PASSED!\n") + count(result.out, " times\nTest PASSED!\n"),
                  passed)
            << result.out;
        EXPECT_EQ(result.err, "");
    }
}

TEST(KivtestEvents, DetailsOfACycle)
{
    const zol_test::scratch_directory scratch;
    std::string conf = zol_test::minimal_configuration();
    conf.replace(conf.find("<debugLevel>1"), 13, "<debugLevel>3");
    strings words = events_test({"-1", "1", "-3", "2"});
    words[2] = scratch.write("conf.xml", conf);
    const std::string out = zol_test::run_command(words).out;
    EXPECT_EQ(count(out, "_lllooonnnggg!!!, max expected len 64 bytes, actual len "), 50U);
    EXPECT_EQ(count(out, "### got 50 events ###\n"), 1U);
    EXPECT_EQ(count(out, "### got 51 events ###\n"), 0U);
    EXPECT_EQ(count(out, " (event_item_49), 50\n"), 1U);
    EXPECT_EQ(count(out, " ### test cycle [2/2]\n"), 1U);
}

TEST(KivtestEvents, DisabledEventsStaySilentForTenSeconds)
{
    const command_result result = zol_test::run_command(events_test({"-2"}));
    EXPECT_EQ(count(result.out, "\nTest PASSED!\n"), 1U) << result.out;
}

TEST(KivtestEvents, OtherOptionsShowTheUsage)
{
    for (const auto &[option, param] : {std::pair{"-ax", "'a' (97)"},
                                        {"-fx", "'f' (102)"},
                                        {"-ex", "'e' (101)"},
                                        {"--count=x", "'c' (99)"},
                                        {"--initdeinit", "'d' (100)"},
                                        {"-Z", "'?' (63)"},
                                        {"--", "'\xff' (-1)"}}) {
        const std::string out = zol_test::run_command(events_test({option})).out;
        EXPECT_EQ(count(out, std::string("###\nparam [ 6 /  6] is ") + param + "\ninvalid argument\n="), 1U)
            << out;
        EXPECT_EQ(count(out, "\t: Execute create-delete event group test <iter_count> iterations\n"), 1U);
    }
    EXPECT_EQ(count(zol_test::run_command(events_test({})).out, "invalid argument\n"), 1U);
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

    // The number in an answer, as it is to be typed back.
    static std::string id_between(const std::string &before, const std::string &answer,
                                  const std::string &after)
    {
        EXPECT_TRUE(answer.starts_with(before) && answer.ends_with(after)) << answer;
        return answer.substr(before.size(), answer.size() - before.size() - after.size());
    }

    std::string make_group()
    {
        return id_between("event group created, ID = ", ask("alloc group sensors"), "\n");
    }

    std::string make_event(const std::string &words)
    {
        return id_between("created event (ID=", ask("create " + words), ")\n");
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
    const std::string group = make_group();
    const std::string door = make_event("door 64 " + group);
    const std::string gate = make_event("gate -1 " + group);
    EXPECT_NE(id_between("get event fd for door :", ask("getfd door"), "\n"),
              id_between("get event fd for gate :", ask("getfd gate"), "\n"));
    EXPECT_EQ(ask("notify " + door + " hello"), "");
    EXPECT_EQ(ask("notify_name gate hello"), "");
    const std::string dump = ask("dumpall");
    EXPECT_LT(dump.find("pname: sensors\n"), dump.find("(" + gate + ")\n"));
    EXPECT_LT(dump.find("(" + gate + ")\n"), dump.find("(" + door + ")\n"));
    EXPECT_EQ(said(ask("free group " + group)), "delete group failed err=-70\n");
    EXPECT_EQ(ask("delete " + door), "deleted event (ID=" + door + ")\n");
    EXPECT_EQ(ask("delete_name gate"), "deleted event (gate)\n");
    EXPECT_EQ(ask("free group " + group), "");

    EXPECT_EQ(said(ask("create door 64 " + group)), "create event failed err=-10\n");
    EXPECT_EQ(said(ask("delete " + door)), "delete event failed err=-10\n") << "stale";
    EXPECT_EQ(said(ask("delete_name gate")), "delete event failed err=-10\n");
    EXPECT_EQ(said(ask("notify " + door + " x")), "notify event failed err=-10\n");
    EXPECT_EQ(said(ask("notify_name gate x")), "notify event failed err=-10\n");
    EXPECT_EQ(said(ask("free group " + group)), "delete group failed err=-10\n");
    EXPECT_EQ(said(ask("getfd door")), "get event fd failed err=-10\n");
    talk_.say("exit now\n");
    EXPECT_EQ(talk_.hear_until("\n"), "exiting interactive mode!");
    EXPECT_EQ(talk_.finish().status, 0);
}

TEST_F(EventsConsole, ListenersRunOnAside)
{
    const std::string group = make_group();
    ask("create door 64 " + group);
    const auto listen = [this](const std::string &words, const strings &reports) {
        std::string heard = ask("waitfor " + words);
        for (const std::string &report : reports) {
            for (int tries = 0; tries < 100'000 && heard.find(report) == std::string::npos; ++tries) {
                heard += ask("getfd door"); // what is asked for brings along what has come
            }
            ASSERT_NE(heard.find(report), std::string::npos) << words;
        }
    };
    listen("door 1000 1", {"Going to wait for 1 events 1 times\n", "waitfor returned err -61\n"});
    listen("nobody 0 2", {"Going to wait for 1 events 2 times\n", "waitfor returned err -10\n"});
    listen("door 0 1", {}); // goes on for ever, which holds up nothing
    EXPECT_EQ(talk_.finish().status, 0);
}

TEST_F(EventsConsole, GarbageIsEchoedAndDoesNoHarm)
{
    const auto unknown = [](const std::string &line) {
        return "Unrecognized command:\n" + line + "\n" + help;
    };
    for (const std::string line :
         {"", " ", "dump", "alloc group", "create door 64", "create door x 1", "delete", "delete x",
          "notify 1", "free group x", "waitfor door 1", "getfd", "%s%n%n", "\x01\xff\x7f\x1b[2J"}) {
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
    EXPECT_EQ(count(end.out, "get event fd failed err=-10\n<cmd>: "), 1U) << "the last line has no end";
    EXPECT_EQ(count(end.out, "exiting"), 1U) << "the application's only";
}

} // namespace
