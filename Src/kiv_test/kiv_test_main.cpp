// The driver of the test tool: command line, start, passes, stop.

#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <type_traits>

#include "builtin_tests.h"
#include "common/number.h"
#include "common/text.h"
#include "common/version.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_test.h"
#include "zol/zol.h"

kiv_test_params g_params;

namespace
{

[[noreturn]] void _kiv_test_print_help()
{
    std::printf(" Shalom, KIV kivtest.exe app - %s\n", kiv::version);
    std::puts(" kivtest.exe help:\n"
              "  -c <file>   --config  <file>        : define which configuration file to use, for example "
              "/etc/kiv/conf.xml   \n"
              "  -t <test>   --test    <test>        : define which test to run               \n"
              "  -R <num>    --repeat  <num>         : run the test <num> times               \n"
              "      Framework Tests:                                                         \n"
              "           read_i2c    - perform a single read operation                       \n"
              "           read_i2c16  - perform a single read operation  (16 bit addr)        \n"
              "           write_i2c   - perform a single write operation                      \n"
              "           write_i2c16 - perform a single write operation (16 bit addr)        \n"
              "           kiv_config  - test kiv_conf module                                  \n"
              "           kiv_i2c     - test kiv_i2c module                                   \n"
              "      Specific Driver Tests:                                                  ");
    kiv_test_util_print_modules("");
    std::puts("Generic parameters - \n"
              "  -v <value>   --value  <value>      : i2c value to be written                \n"
              "  -r <reg>     --reg    <reg>        : i2c reg value to read / write          \n"
              "  -b <bus>     --bus    <bus>        : i2c bus read / write                   \n"
              "  -d <addres>  --addr   <address>    : i2c device 7bit address read / write   \n"
              "  -s <1/0>     --sim    <1/0>        : run on a PC (no i2c / spi operations)  \n"
              "  -e           --eventid             : eventid in log file                    \n"
              "  -f           --logfile             : log filename\t                      \n"
              "  -x           --verbose             : force debug prints to all              \n"
              "  -l           --loop                : loop the test (requires interaction)   \n"
              "\"command\" parameters - \n"
              "\n");
    std::exit(0);
}

int _stoi(const char *str)
{
    int32_t value = 0;
    if (!kiv::parse_argument_number(str, value)) {
        KIV_LOG_ERRR("can't convert [%s] to int\n", str);
    }
    return value;
}

constexpr char shortOptions[] = "h::c:t:pv:r:s:d:b:lxm:C:P:V:D:R:f:e:";

constexpr option longOptions[] = {
    {"config", required_argument, nullptr, 'c'},
    {"help", optional_argument, nullptr, 'h'},
    {"test", required_argument, nullptr, 't'},
    {"repeat", required_argument, nullptr, 'R'},
    {"pc", no_argument, nullptr, 'p'},
    {"reg", required_argument, nullptr, 'r'},
    {"bus", required_argument, nullptr, 'b'},
    {"addr", required_argument, nullptr, 'd'},
    {"val", required_argument, nullptr, 'v'},
    {"sim", required_argument, nullptr, 's'},
    {"loop", no_argument, nullptr, 'l'},
    {"verbose", no_argument, nullptr, 'x'},
    {"new", required_argument, nullptr, 'm'},
    {"logfile", required_argument, nullptr, 'f'},
    {"eventid", required_argument, nullptr, 'e'},
    {"CMD", required_argument, nullptr, 'C'},
    {"DEV", required_argument, nullptr, 'D'},
    {"PARAM", required_argument, nullptr, 'P'},
    {"VAL", required_argument, nullptr, 'V'},
    {nullptr, 0, nullptr, 0},
};

// One run of the tool.
struct test_run {
    int argc;
    char **argv;
    unsigned testFlags; // KIV_TEST_FLAG_... bits; once set they stay
    int32_t runStatus;  // negative: nothing is started and no test runs
};

struct text_option {
    char letter;
    const char *kiv_test_params::*field;
    const char *label;
};

constexpr text_option text_options[] = {
    {'c', &kiv_test_params::strConfigFile, "using config file : "},
    {'t', &kiv_test_params::strTest, "using test file   : "},
    {'C', &kiv_test_params::strCommand, "command           : "},
    {'D', &kiv_test_params::strDevice, "device           : "},
    {'P', &kiv_test_params::strParam, "param             : "},
    {'V', &kiv_test_params::strValue, "value             : "},
};

// Stores a number, cut to the width of its field, and returns what is stored.
template <auto field>
uint32_t store(int32_t value)
{
    using field_type = std::remove_reference_t<decltype(g_params.*field)>;
    g_params.*field = static_cast<field_type>(value);
    return static_cast<uint32_t>(g_params.*field);
}

uint32_t store_simulator(int32_t value)
{
    return store<&kiv_test_params::isSimulator>(value != 0 ? 1 : 0);
}

enum class shown_as { decimal, hexadecimal };

struct number_option {
    char letter;
    uint32_t (*store)(int32_t value);
    const char *label;
    shown_as base;
};

constexpr number_option number_options[] = {
    {'R', store<&kiv_test_params::repeatNum>, "repeat test ", shown_as::decimal},
    {'r', store<&kiv_test_params::i2c_reg>, "reg               : ", shown_as::hexadecimal},
    {'b', store<&kiv_test_params::i2c_bus>, "bus               : ", shown_as::hexadecimal},
    {'d', store<&kiv_test_params::i2c_addr>, "device address    : ", shown_as::hexadecimal},
    {'v', store<&kiv_test_params::i2c_val>, "val               : ", shown_as::hexadecimal},
    {'s', store_simulator, "isSimulator       : ", shown_as::hexadecimal},
    {'e', store<&kiv_test_params::eventId>, "event id   : ", shown_as::decimal},
};

template <typename option_table>
const auto *find_option(const option_table &table, int letter)
{
    const auto found = std::find_if(std::begin(table), std::end(table),
                                    [letter](const auto &option) { return option.letter == letter; });
    return found != std::end(table) ? &*found : nullptr;
}

bool apply_text_option(int letter, const char *argument)
{
    const text_option *const option = find_option(text_options, letter);
    if (option == nullptr) {
        return false;
    }
    g_params.*option->field = argument;
    KIV_LOG_PRNT("%s%s\n", option->label, argument);
    return true;
}

bool apply_number_option(int letter, const char *argument)
{
    const number_option *const option = find_option(number_options, letter);
    if (option == nullptr) {
        return false;
    }
    const uint32_t stored = option->store(_stoi(argument));
    if (option->base == shown_as::decimal) {
        KIV_LOG_PRNT("%s%d\n", option->label, static_cast<int32_t>(stored));
    } else {
        KIV_LOG_PRNT("%s0x%x\n", option->label, stored);
    }
    return true;
}

bool apply_switch(int letter, test_run &run)
{
    switch (letter) {
    case 'l':
        g_params.isFreePlay = 1;
        run.testFlags |= KIV_TEST_FLAG_FREE_PLAY;
        KIV_LOG_PRNT("freeplay          : 0x%x\n", g_params.isFreePlay);
        return true;
    case 'x':
        g_params.isForceDebug = 1;
        return true;
    default:
        return false;
    }
}

// The word after -h names a module; without one the help is about the tool.
[[noreturn]] void show_help(const test_run &run)
{
    const char *const word = optind < run.argc ? run.argv[optind] : "";
    if (std::strlen(word) < 2) {
        _kiv_test_print_help();
    }
    kiv_test_util_print_modules(word);
    std::exit(0);
}

void reject_option(int letter, test_run &run)
{
    KIV_LOG_ERRR("unknown parameters %d [%d][%c][%s]\n", optind - 1, letter, letter, run.argv[optind - 1]);
    run.runStatus = -1;
}

void apply_option(int letter, test_run &run)
{
    if (letter == 'h') {
        show_help(run);
    }
    const bool applied =
        apply_text_option(letter, optarg) || apply_number_option(letter, optarg) || apply_switch(letter, run);
    if (!applied) {
        reject_option(letter, run);
    }
}

void check_leftover_words(const test_run &run)
{
    if (optind != run.argc) {
        KIV_LOG_ERRR("Couldn't recognize all the %d / %d params, quiting...\n", optind, run.argc);
        _kiv_test_print_help();
    }
}

void parse_command_line(test_run &run)
{
    for (;;) {
        const int letter = getopt_long(run.argc, run.argv, shortOptions, longOptions, nullptr);
        if (letter == -1) {
            KIV_LOG_PRNT("done with the parameters\n");
            check_leftover_words(run);
            return;
        }
        if (letter == 'm') { // what follows is the module's
            g_params.strTest = optarg;
            KIV_LOG_PRNT("stop parsing...\n");
            return;
        }
        apply_option(letter, run);
    }
}

const char *default_config_file()
{
    constexpr const char *of_the_tool = "Conf/kiv_test.xml";
    FILE *const file = std::fopen(of_the_tool, "re");
    if (file == nullptr) {
        return "/etc/kiv/conf.xml";
    }
    std::fclose(file);
    return of_the_tool;
}

void set_defaults()
{
    g_params.strConfigFile = default_config_file();
    g_params.strTest = "all";
    g_params.repeatNum = 1;
    g_params.i2c_bus = 4;
    g_params.i2c_addr = 0x18;
    g_params.i2c_reg = 0x0f;
    g_params.i2c_val = 1;
    g_params.strCommand = "";
    g_params.strValue = "";
    g_params.strParam = "";
}

void register_builtin_tests()
{
    for (const kiv_test_item &item : kiv::builtin_tests()) {
        KIV_LOG_PRNT("    Adding (%s) test\n", item.name);
        kiv_test_util_register(&item);
    }
}

void log_parameters()
{
    KIV_LOG_PRNT("initialize strConfigFile : %s\n", g_params.strConfigFile);
    KIV_LOG_PRNT("initialize strTest       : %s\n", g_params.strTest);
    KIV_LOG_PRNT("initialize repeatNum     : %d\n", g_params.repeatNum);
    KIV_LOG_PRNT("initialize isSimulator   : %d\n", static_cast<int>(g_params.isSimulator));
    KIV_LOG_PRNT("initialize isForceDebug  : %d\n", static_cast<int>(g_params.isForceDebug));
    KIV_LOG_PRNT("initialize isFreePlay    : %d\n", static_cast<int>(g_params.isFreePlay));
    KIV_LOG_PRNT("initialize i2c_bus       : 0x%x\n", g_params.i2c_bus);
    KIV_LOG_PRNT("initialize i2c_addr      : 0x%x\n", g_params.i2c_addr);
    KIV_LOG_PRNT("initialize i2c_reg       : 0x%x\n", g_params.i2c_reg);
    KIV_LOG_PRNT("initialize i2c_val       : 0x%x\n", g_params.i2c_val);
}

void start_library(test_run &run)
{
    log_parameters();
    run.runStatus = zol_init(g_params.strConfigFile);
    KIV_ASSERT(run.runStatus >= 0);
}

void force_debug_level()
{
    __atomic_store_n(&g_debugLevel, KIV_DEBUG_LEVEL_ALL, __ATOMIC_RELAXED);
    KIV_LOG_PRNT("Forcing - g_debugLevel = KIV_DEBUG_LEVEL_ALL\n");
}

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

void run_selected_test(const test_run &run)
{
    const char *const name = kiv::or_empty(g_params.strTest);
    const auto found =
        std::find_if(std::begin(driver_tests), std::end(driver_tests),
                     [name](const driver_test &test) { return std::strcmp(test.name, name) == 0; });
    if (found != std::end(driver_tests)) {
        found->run(run);
    } else if (kiv_test_util_match(name, run.argc, run.argv, run.testFlags) == 0) {
        KIV_LOG_ERRR("unknown test: %s\n", name);
    }
}

void run_passes(test_run &run)
{
    for (int32_t pass = 0; pass < g_params.repeatNum; ++pass) {
        KIV_LOG_INF1("Starting (%s) %d/%d\n", g_params.strTest, pass, g_params.repeatNum);
        run.testFlags |= g_params.isSimulator != 0 ? KIV_TEST_FLAG_SIMULATOR : 0u;
        run.testFlags |= g_params.isFreePlay != 0 ? KIV_TEST_FLAG_FREE_PLAY : 0u;
        run_selected_test(run);
        KIV_LOG_INF1("End (%s) %d/%d\n", g_params.strTest, pass, g_params.repeatNum);
    }
}

} // namespace

int kiv_test_main(int argc, char **argv)
{
    test_run run = {argc, argv, 0, 0};
    g_params = {};
    register_builtin_tests();
    set_defaults();
    parse_command_line(run);
    if (run.runStatus >= 0) {
        start_library(run);
    }
    if (g_params.isForceDebug != 0) {
        force_debug_level();
    }
    if (run.runStatus >= 0) {
        run_passes(run);
    }
    const int32_t stopped = zol_deinit();
    KIV_ASSERT(stopped >= 0);
    KIV_LOG_PRNT("exiting application\n");
    return stopped;
}
