// The command line of the test tool: the defaults, the options, the help.

#include "command_line.h"

#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <type_traits>

#include "common/number.h"
#include "common/owner.h"
#include "common/version.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_test.h"

namespace
{

// The tool logs a wrong number under a name of its own. A test that is given one still runs, with 0.
int _stoi(const char *str)
{
    int32_t value = 0;
    if (!kiv::parse_argument_number(str, value)) {
        KIV_LOG_ERRR("can't convert [%s] to int\n", str);
    }
    return value;
}

// The letters 'p' and 'f' are parsed but have no effect of their own, so they end among the rejected options.
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

// An option that stores its argument. The label is a part of the log line, with the blanks that align it.
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

// Any number but 0 turns the simulator on.
uint32_t store_simulator(int32_t value)
{
    return store<&kiv_test_params::isSimulator>(value != 0 ? 1 : 0);
}

enum class shown_as { decimal, hexadecimal };

// The field's width is known to its store function alone, so one table serves fields of every width.
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

// @return Null when the letter is not in the table, so that another table is asked.
template <typename option_table>
const auto *find_option(const option_table &table, int letter)
{
    const auto found = std::find_if(std::begin(table), std::end(table),
                                    [letter](const auto &option) { return option.letter == letter; });
    return found != std::end(table) ? &*found : nullptr;
}

bool apply_text_option(int letter, const char *argument, kiv::call_site site)
{
    const text_option *const option = find_option(text_options, letter);
    if (option == nullptr) {
        return false;
    }
    g_params.*option->field = argument;
    KIV_LOG_AT(site, PRNT, "%s%s\n", option->label, argument);
    return true;
}

bool apply_number_option(int letter, const char *argument, kiv::call_site site)
{
    const number_option *const option = find_option(number_options, letter);
    if (option == nullptr) {
        return false;
    }
    const uint32_t stored = option->store(_stoi(argument));
    if (option->base == shown_as::decimal) {
        KIV_LOG_AT(site, PRNT, "%s%d\n", option->label, static_cast<int32_t>(stored));
    } else {
        KIV_LOG_AT(site, PRNT, "%s0x%x\n", option->label, stored);
    }
    return true;
}

bool apply_switch(int letter, kiv::test_run &run, kiv::call_site site)
{
    switch (letter) {
    case 'l':
        g_params.isFreePlay = 1;
        run.testFlags |= KIV_TEST_FLAG_FREE_PLAY;
        KIV_LOG_AT(site, PRNT, "freeplay          : 0x%x\n", g_params.isFreePlay);
        return true;
    case 'x':
        g_params.isForceDebug = 1;
        return true;
    default:
        return false;
    }
}

// The word after -h names a module; without one the help is about the tool.
[[noreturn]] void show_help(const kiv::test_run &run)
{
    const char *const word = optind < run.argc ? run.argv[optind] : "";
    if (std::strlen(word) < 2) {
        kiv::_kiv_test_print_help();
    }
    kiv_test_util_print_modules(word);
    std::exit(0);
}

// Parsing goes on, so that one run reports every wrong option.
void reject_option(int letter, kiv::test_run &run, kiv::call_site site)
{
    KIV_LOG_AT(site, ERRR, "unknown parameters %d [%d][%c][%s]\n", optind - 1, letter, letter,
               run.argv[optind - 1]);
    run.runStatus = -1;
}

void apply_option(int letter, kiv::test_run &run, kiv::call_site site)
{
    if (letter == 'h') {
        show_help(run);
    }
    const bool applied = apply_text_option(letter, optarg, site) ||
                         apply_number_option(letter, optarg, site) || apply_switch(letter, run, site);
    if (!applied) {
        reject_option(letter, run, site);
    }
}

// The message shows the numbers in the order of the words: those understood, and all.
void check_leftover_words(const kiv::test_run &run, kiv::call_site site)
{
    if (optind != run.argc) {
        KIV_LOG_AT(site, ERRR, "Couldn't recognize all the %d / %d params, quiting...\n", optind, run.argc);
        kiv::_kiv_test_print_help();
    }
}

bool is_help(const char *word)
{
    return std::strcmp(word, "-h") == 0 || std::strcmp(word, "--help") == 0;
}

// The words that follow belong to the module. Help is the exception: it must not need a library that starts.
void leave_rest_to_module(kiv::test_run &run, kiv::call_site site)
{
    g_params.strTest = optarg;
    KIV_LOG_AT(site, PRNT, "stop parsing...\n");
    run.wants_module_help = std::any_of(run.argv + optind, run.argv + run.argc, is_help);
}

// In a source tree the tool runs with the tree's own configuration, on a board with the installed one.
const char *default_config_file()
{
    constexpr const char *of_the_tool = "Conf/kiv_test.xml";
    const kiv::owner<FILE, std::fclose> file(std::fopen(of_the_tool, "re"));
    return file != nullptr ? of_the_tool : "/etc/kiv/conf.xml";
}

} // namespace

void kiv::set_default_parameters()
{
    g_params.strConfigFile = default_config_file();
    g_params.strTest = "all";
    g_params.repeatNum = 1;
    g_params.i2c_bus = 4; // the sensor of the board, and the register that identifies it
    g_params.i2c_addr = 0x18;
    g_params.i2c_reg = 0x0f;
    g_params.i2c_val = 1;
    g_params.strCommand = "";
    g_params.strValue = "";
    g_params.strParam = "";
}

void kiv::parse_command_line(test_run &run, call_site site)
{
    optind = 0; // getopt forgets a command line that it may have parsed before
    for (;;) {
        const int letter = getopt_long(run.argc, run.argv, shortOptions, longOptions, nullptr);
        if (letter == -1) {
            KIV_LOG_AT(site, PRNT, "done with the parameters\n");
            check_leftover_words(run, site);
            return;
        }
        if (letter == 'm') {
            leave_rest_to_module(run, site);
            return;
        }
        apply_option(letter, run, site);
    }
}

void kiv::log_parameters(call_site site)
{
    KIV_LOG_AT(site, PRNT, "initialize strConfigFile : %s\n", g_params.strConfigFile);
    KIV_LOG_AT(site, PRNT, "initialize strTest       : %s\n", g_params.strTest);
    KIV_LOG_AT(site, PRNT, "initialize repeatNum     : %d\n", g_params.repeatNum);
    KIV_LOG_AT(site, PRNT, "initialize isSimulator   : %d\n", static_cast<int>(g_params.isSimulator));
    KIV_LOG_AT(site, PRNT, "initialize isForceDebug  : %d\n", static_cast<int>(g_params.isForceDebug));
    KIV_LOG_AT(site, PRNT, "initialize isFreePlay    : %d\n", static_cast<int>(g_params.isFreePlay));
    KIV_LOG_AT(site, PRNT, "initialize i2c_bus       : 0x%x\n", g_params.i2c_bus);
    KIV_LOG_AT(site, PRNT, "initialize i2c_addr      : 0x%x\n", g_params.i2c_addr);
    KIV_LOG_AT(site, PRNT, "initialize i2c_reg       : 0x%x\n", g_params.i2c_reg);
    KIV_LOG_AT(site, PRNT, "initialize i2c_val       : 0x%x\n", g_params.i2c_val);
}

// The blanks at the line ends are a part of the text.
void kiv::_kiv_test_print_help()
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
