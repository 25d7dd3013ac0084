#include "builtin_tests.h"

namespace
{

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

} // namespace

std::span<const kiv_test_item> kiv::builtin_tests() noexcept
{
    return g_testItems;
}
