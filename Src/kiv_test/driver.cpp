// The driver of the test tool: start, passes, stop.

#include <getopt.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "builtin_tests.h"
#include "command_line.h"
#include "common/text.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_test.h"
#include "zol/zol.h"

kiv_test_params g_params;

using kiv::call_site;
using kiv::test_run;

namespace
{

// The name under which the driver logs.
constexpr call_site in_main(int line = __builtin_LINE()) noexcept
{
    return {"main", line};
}

// A test that cannot be registered for want of memory is reported as unknown when it is asked for.
void register_builtin_tests(call_site site)
{
    for (const kiv_test_item &item : kiv::builtin_tests()) {
        KIV_LOG_AT(site, PRNT, "    Adding (%s) test\n", item.name);
        kiv_test_util_register(&item);
    }
}

void start_library(test_run &run, call_site site)
{
    kiv::log_parameters(site);
    run.runStatus = zol_init(g_params.strConfigFile);
    if (!KIV_HOLDS_AT(site, run.runStatus >= 0)) {
        KIV_LOG_AT(site, ERRR, "can't start the library with %s: status %d\n", g_params.strConfigFile,
                   run.runStatus);
    }
}

// After the start, which sets the level of the configuration. Threads of the library may be running, so the store is atomic.
void force_debug_level(call_site site)
{
    __atomic_store_n(&g_debugLevel, KIV_DEBUG_LEVEL_ALL, __ATOMIC_RELAXED);
    KIV_LOG_AT(site, PRNT, "Forcing - g_debugLevel = KIV_DEBUG_LEVEL_ALL\n");
}

// For a start and a stop of the library alone.
void run_nothing(const test_run &) {}

template <int (*test)(int is16), int is16>
void run_i2c(const test_run &)
{
    test(is16);
}

void run_all(const test_run &run)
{
    for (const kiv_test_item &item : kiv::builtin_tests()) {
        if (item.inAll != 0) {
            kiv_test_util_match(item.name, run.argc, run.argv, run.testFlags);
        }
    }
}

// The tests that the driver runs itself; any other name is a module's.
struct driver_test {
    const char *name;
    void (*run)(const test_run &run);
};

constexpr driver_test driver_tests[] = {
    {"kiv_i2c", run_nothing},
    {"read_i2c", run_i2c<_test_kiv_i2c_read, 0>},
    {"read_i2c16", run_i2c<_test_kiv_i2c_read, 1>},
    {"write_i2c", run_i2c<_test_kiv_i2c_write, 0>},
    {"write_i2c16", run_i2c<_test_kiv_i2c_write, 1>},
    {"all", run_all},
};

const driver_test *find_driver_test(const char *name)
{
    const auto found =
        std::find_if(std::begin(driver_tests), std::end(driver_tests),
                     [name](const driver_test &test) { return std::strcmp(test.name, name) == 0; });
    return found != std::end(driver_tests) ? &*found : nullptr;
}

// A test of the driver has no options of its own: its help is the tool's.
[[noreturn]] void show_module_help(const char *name)
{
    if (find_driver_test(name) != nullptr) {
        kiv::_kiv_test_print_help();
    }
    kiv_test_util_print_modules(name);
    kiv::print_own_help(name);
    std::exit(0);
}

void run_selected_test(const test_run &run, call_site site)
{
    const char *const name = kiv::or_empty(g_params.strTest);
    if (const driver_test *const test = find_driver_test(name); test != nullptr) {
        test->run(run);
    } else if (kiv_test_util_match(name, run.argc, run.argv, run.testFlags) == 0) {
        KIV_LOG_AT(site, ERRR, "unknown test: %s\n", name);
    }
}

// Every pass leaves the same words to its module. getopt has more state than optind; 0 resets it.
void continue_parsing_at(int word)
{
    char program[] = "";
    char *const no_words[] = {program, nullptr};
    optind = 0;
    static_cast<void>(getopt(1, no_words, ""));
    optind = word;
}

void run_passes(test_run &run, call_site site)
{
    const int first_word_of_module = optind;
    for (int32_t pass = 0; pass < g_params.repeatNum; ++pass) {
        KIV_LOG_AT(site, INF1, "Starting (%s) %d/%d\n", g_params.strTest, pass, g_params.repeatNum);
        run.testFlags |= g_params.isSimulator != 0 ? KIV_TEST_FLAG_SIMULATOR : 0u;
        run.testFlags |= g_params.isFreePlay != 0 ? KIV_TEST_FLAG_FREE_PLAY : 0u;
        continue_parsing_at(first_word_of_module);
        run_selected_test(run, site);
        KIV_LOG_AT(site, INF1, "End (%s) %d/%d\n", g_params.strTest, pass, g_params.repeatNum);
    }
}

// The tests are registered first: help lists them, and it ends the process while the options are parsed.
void parse(test_run &run, call_site site)
{
    g_params = {};
    register_builtin_tests(site);
    kiv::set_default_parameters();
    kiv::parse_command_line(run, site);
    if (run.wants_module_help) {
        show_module_help(g_params.strTest);
    }
}

int32_t stop_library(call_site site)
{
    const int32_t stopped = zol_deinit();
    if (!KIV_HOLDS_AT(site, stopped >= 0)) {
        KIV_LOG_AT(site, ERRR, "can't stop the library: status %d\n", stopped);
    }
    return stopped;
}

} // namespace

int kiv_test_main(int argc, char **argv)
{
    test_run run = {argc, argv, 0, 0, false};
    parse(run, in_main());
    if (run.runStatus >= 0) {
        start_library(run, in_main());
    }
    if (g_params.isForceDebug != 0) {
        force_debug_level(in_main());
    }
    if (run.runStatus >= 0) {
        run_passes(run, in_main());
    }
    // Also after a failed start: the status of the stop, then an error, becomes the exit status.
    const int32_t stopped = stop_library(in_main());
    KIV_LOG_AT(in_main(), PRNT, "exiting application\n");
    return stopped;
}
