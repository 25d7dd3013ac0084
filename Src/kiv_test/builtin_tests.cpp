#include "builtin_tests.h"

#include <cstring>

#include "kiv_debug/log_as.h"

namespace
{

// The help lists the latest record first, so the order here is that of the help read backwards. The texts are shown
// as they are, aligned or not.
constexpr kiv_test_item g_testItems[] = {
    {"gpio", "test the kiv_gpio module", "TBD", test_gpio, 0},
    {"kiv_thread", "Test the kiv_thread module", "", _test_kiv_thread, 1},
    {"biostress", "Stress test fs and bio",
     "-t or --threads <n>  : Number of threads to run\n"
     "-f or --files <n>    : Number of files each thread will create\n"
     "-d or --delay <usec> : Amount of time in usec to sleep\n"
     "-l : Run forever\n",
     _kiv_test_biostress, 0},
    {"cpubench", "CPU benchmarking",
     "-l or --loopcnt<n>  : Number of loops to run\n"
     "-d or --delay <n>   : Duration in msec of the sleep\n"
     "-c or --delaycnt <usec> : Number of times to wait for delay in each iteration\n"
     "-s : Spin count, number of iterations to spin\n",
     _zol_test_cpubench, 0},
    {"events", "Test the kiv_events module", "  -1     - TBD\n  -2     - TBD\n", test_events, 0},
    {"kiv_tokens", "Test kiv_tokens module", "", _kiv_test_tokens, 0},
};

// These two modules have options that their records do not list.
struct own_help {
    const char *name;
    void (*print)();
};

constexpr own_help own_helps[] = {
    {"gpio", kiv::print_gpio_test_help},
    {"events", kiv::print_events_test_help},
};

} // namespace

std::span<const kiv_test_item> kiv::builtin_tests() noexcept
{
    return g_testItems;
}

void kiv::print_own_help(const char *name)
{
    if (g_debugLevel < level::PRNT) { // the gpio module logs its list
        g_debugLevel = level::PRNT;   // no other thread runs yet
    }
    for (const own_help &help : own_helps) {
        if (std::strcmp(help.name, name) == 0) {
            help.print();
        }
    }
}
