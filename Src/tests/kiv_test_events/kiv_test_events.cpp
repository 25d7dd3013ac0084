// The events test: its options and their help.

#include <getopt.h>

#include <cstdio>

#include "events_test.h"
#include "kiv_test/builtin_tests.h"
#include "kiv_test/option_loop.h"
#include "zol/kiv_events.h"
#include "zol/kiv_test.h"

using kiv::events_test::__create_delete_ev_group_test;
using kiv::events_test::__test01;
using kiv::events_test::__test02;

namespace
{

void print_verdict(bool passed)
{
    std::printf("%s\n", passed ? "Test PASSED!" : "Test FAILED!");
}

void print_options()
{
    std::puts(
        "======= HELP =============\n"
        "Supported commands:\n"
        "==========================\n"
        "'-i or --interactive' \t\t\t\t: Enable interactive mode\n"
        "'-1 or --test01 <iter>' \t\t\t: Execute test01, iter represents the number of events messages\n"
        "'-2 or --test02' \t\t\t\t: Execute test02, Will be checking to ensure events are not sent if "
        "not enabled.\n"
        "'-3 or --create_delete_group <iter_count>' \t: Execute create-delete event group test "
        "<iter_count> iterations");
}

// The letters that have no case below are answered with the help.
constexpr char shortOptions[] = "1:23:a:f:ic:e:d";

constexpr option longOptions[] = {
    {"test01", required_argument, nullptr, '1'},
    {"test02", no_argument, nullptr, '2'},
    {"create_delete_group", required_argument, nullptr, '3'},
    {"interactive", no_argument, nullptr, 'i'},
    {"alloc", required_argument, nullptr, 'a'},
    {"free", required_argument, nullptr, 'f'},
    {"allocfree", required_argument, nullptr, 'e'},
    {"initdeinit", no_argument, nullptr, 'd'},
    {"count", required_argument, nullptr, 'c'},
    {nullptr, 0, nullptr, 0},
};

void apply_option(int letter, int &result)
{
    switch (letter) {
    case '1':
        return print_verdict(__test01(stoi(optarg)));
    case '2':
        return print_verdict(__test02());
    case '3':
        return print_verdict(__create_delete_ev_group_test(stoi(optarg)));
    case 'i':
        if (const int error = kiv::events_test::run_console(); error != 0) {
            result = error;
        }
        return;
    default:
        std::puts("invalid argument");
        return print_options();
    }
}

// The mode changes while the module is stopped, so no operation meets the change halfway.
void switch_simulator_on()
{
    std::puts("----------------------------\n"
              "\tsimulator on\n"
              "----------------------------");
    kiv_events_deinit();
    kiv_events_set_simulator_mode(1);
    kiv_events_init();
}

} // namespace

void kiv::print_events_test_help()
{
    print_options();
}

int test_events(int argc, char **argv, unsigned testFlags)
{
    std::puts("###########################################\n"
              "\t\t EVENTS TEST MENU\n"
              "###########################################");
    if ((testFlags & KIV_TEST_FLAG_SIMULATOR) != 0) {
        switch_simulator_on();
    }
    int result = 0;
    kiv::for_each_option(argc, argv, shortOptions, longOptions,
                         [&result](int letter) { apply_option(letter, result); });
    return result;
}
