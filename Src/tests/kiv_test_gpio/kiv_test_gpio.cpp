// The GPIO test: pins allocated, registered and the module restarted in cycles, and a console for work by
// hand.

#include <getopt.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "kiv_debug/log_as.h"
#include "kiv_test/builtin_tests.h"
#include "kiv_test/console.h"
#include "kiv_test/option_loop.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_gpio.h"
#include "zol/kiv_status.h"
#include "zol/kiv_test.h"

namespace
{

constexpr char pin_name[] = "test";

// The callback's argument tells the place that registered it.
constexpr uintptr_t cycle_tag = 1;
constexpr uintptr_t console_tag = 2;

#define HASHES "###########################################\n"

// On the listener's thread.
int __gpio_cbk(int32_t gpio, uintptr_t user_data)
{
    static int cnt = 0;
    std::printf("##################### %d #######################\n", cnt++);
    std::printf("\nGPIO cbk, gpio=%d, user_data=%d\n", gpio, static_cast<int>(user_data));
    std::fflush(stdout); // nobody else may be about to write for a long time
    return 0;
}

void print_verdict(const char *test, bool passed)
{
    KIV_LOG_AS(test, PRNT, "%s\n", passed ? "Test PASSED!" : "Test FAILED!");
}

bool __alloc_free_gpio(int gpio, int cnt)
{
    KIV_LOG_PRNT("alloc-free test for gpio %d, cnt=%d\n", gpio, cnt);
    for (int i = 0; i < cnt; ++i) {
        KIV_LOG_INF1("gpio %d cycle %d\n", gpio, i);
        if (kiv_gpio_request(gpio, pin_name) != KIV_OK) {
            KIV_LOG_ERRR("failed requesting gpio %d cycle count %d\n", gpio, i);
            return false;
        }
        if (kiv_gpio_free(gpio) != KIV_OK) {
            KIV_LOG_ERRR("failed freeing gpio %d cycle count %d\n", gpio, i);
            return false;
        }
    }
    return true;
}

bool __init_deinit_gpio(int cnt)
{
    KIV_LOG_PRNT("init-deinit test, cnt-%d\n", cnt);
    for (int i = 0; i < cnt; ++i) {
        KIV_LOG_INF1("cycle %d\n", i);
        for (int32_t (*const step)() : {kiv_gpio_deinit, kiv_gpio_init}) {
            if (const int32_t status = step(); status != KIV_OK) {
                KIV_LOG_ERRR("failed initializing cycle %d, err %d\n", i, status);
                return false;
            }
        }
    }
    return true;
}

bool __register_unregister_gpio(int gpio, int cnt)
{
    KIV_LOG_PRNT("register-unregister test, gpio-%d cnt-%d\n", gpio, cnt);
    if (kiv_gpio_request(gpio, pin_name) != KIV_OK) {
        KIV_LOG_ERRR("failed requesting gpio %d\n", gpio);
        return false;
    }
    for (int i = 0; i < cnt; ++i) {
        KIV_LOG_INF1("int register test #1 gpio %d cycle %d\n", gpio, i);
        // The board ignores the edges of a level interrupt, so -1 does no harm.
        if (kiv_gpio_register_callback(gpio, KIV_GPIO_LEVEL, -1, KIV_GPIO_LEVEL_HIGH, __gpio_cbk,
                                       cycle_tag) != KIV_OK) {
            KIV_LOG_ERRR("failed to register gpio %d cycle count %d\n", gpio, i);
            return false;
        }
        if (kiv_gpio_unregister_callback(gpio) != KIV_OK) {
            KIV_LOG_ERRR("failed to unregister gpio %d cycle count %d\n", gpio, i);
            return false;
        }
    }
    return true;
}

template <std::size_t count>
void print_lines(const char *routine, const char *const (&lines)[count])
{
    for (const char *const line : lines) {
        KIV_LOG_AS(routine, PRNT, "%s\n", line);
    }
}

void __print_help()
{
    static constexpr const char *lines[] = {
        "======= HELP =============",
        "Supported commands:",
        "==========================",
        "'-i or --interactive' \t\t: Enable interactive mode",
        "'-a or --alloc <gpio num>' \t\t: Allocate gpio",
        "'-f or --free <gpio num>' \t\t: Free gpio",
        "'-e or --allocfree <gpio num>' \t\t: Alloc-Free gpio cnt times",
        "'-d or --initdeint' \t\t: Init/Deinit the kiv-gpio module",
        "'-r or --registerunregister <gpio num>' \t\t: Register/UnRegister gpio num, cnt times",
        "'-c or --count <cnt>' \t\t: Set a global count (cnt) variable",
    };
    print_lines(__func__, lines);
}

void __print_interactive_help()
{
    static constexpr const char *lines[] = {
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
        "'unreg <gpio_num>'\t\t\t: UnRegister callback for gpio",
    };
    print_lines(__func__, lines);
}

// The console and the options belong to the test as a whole.
#define SAY(...) KIV_LOG_AS("test_gpio", PRNT, __VA_ARGS__)

// The console's commands: each carries a line out if it is its own, and says whether it was.

bool print_help(const char *line)
{
    if (std::strncmp(line, "help", 4) != 0) {
        return false;
    }
    __print_interactive_help();
    return true;
}

// A word and a pin number: an operation on that pin.
bool do_with_pin(const char *line, const char *word, int32_t (*operation)(int gpio), const char *failure)
{
    int gpio = 0;
    const std::size_t length = std::strlen(word);
    if (std::strncmp(line, word, length) != 0 || std::sscanf(line + length, "%d", &gpio) != 1) {
        return false;
    }
    if (const int32_t status = operation(gpio); status != KIV_OK) {
        SAY("%s err=%d\n", failure, status);
    }
    return true;
}

int32_t request(int gpio)
{
    return kiv_gpio_request(gpio, pin_name);
}

int32_t show_level(int gpio)
{
    int value = 0;
    const int32_t status = kiv_gpio_get(gpio, &value);
    if (status == KIV_OK) {
        SAY("get gpio %d val %d\n", gpio, value);
    }
    return status;
}

bool alloc(const char *line)
{
    return do_with_pin(line, "alloc", request, "request failed");
}

bool free_pin(const char *line)
{
    return do_with_pin(line, "free", kiv_gpio_free, "free failed");
}

bool get(const char *line)
{
    return do_with_pin(line, "get", show_level, "get failed");
}

bool unreg(const char *line)
{
    return do_with_pin(line, "unreg", kiv_gpio_unregister_callback, "unregister cbk failed");
}

bool set(const char *line)
{
    int gpio = 0;
    int value = 0;
    if (std::sscanf(line, "set %d %d", &gpio, &value) != 2) {
        return false;
    }
    if (const int32_t status = kiv_gpio_set(gpio, value); status != KIV_OK) {
        SAY("set failed err=%d\n", status);
    }
    return true;
}

// The configurations of an interrupt, by the number that is typed for them.
struct interrupt_mode {
    int edge_cfg;
    int level_cfg;
};

constexpr interrupt_mode modes[] = {
    {0, KIV_GPIO_LEVEL_LOW},   {0, KIV_GPIO_LEVEL_HIGH}, {KIV_GPIO_EDGE_FALLING, 0},
    {KIV_GPIO_EDGE_RISING, 0}, {KIV_GPIO_EDGE_BOTH, 0},
};

bool reg(const char *line)
{
    int gpio = 0;
    int level_or_edge = 0;
    int mode = 0;
    if (std::sscanf(line, "reg %d %d %d", &gpio, &level_or_edge, &mode) != 3) {
        return false;
    }
    if ((level_or_edge != 0 && level_or_edge != 1) || static_cast<unsigned>(mode) >= std::size(modes)) {
        SAY("invalid value for 'level_or_edge' %d\n", level_or_edge);
        __print_interactive_help();
        return true;
    }
    const int level_edge = level_or_edge == 1 ? KIV_GPIO_LEVEL : KIV_GPIO_EDGE;
    if (const int32_t status = kiv_gpio_register_callback(gpio, level_edge, modes[mode].edge_cfg,
                                                          modes[mode].level_cfg, __gpio_cbk, console_tag);
        status != KIV_OK) {
        SAY("register cbk failed, err=%d\n", status);
    }
    return true;
}

constexpr bool (*commands[])(const char *line) = {print_help, alloc, free_pin, set, get, reg, unreg};

// Ends with the input, at the latest: a script need not know the word "exit".
void run_console()
{
    __print_interactive_help();
    SAY(HASHES);
    char line[kiv::console_line_size];
    for (;;) {
        SAY("<cmd>: ");
        if (!kiv::read_line(line) || std::strncmp(line, "exit", 4) == 0) {
            break;
        }
        if (std::none_of(std::begin(commands), std::end(commands), [&](auto run) { return run(line); })) {
            SAY("Unrecognized command:\n");
            SAY("%s\n", line);
            __print_interactive_help();
        }
    }
    SAY("exiting interactive mode!\n");
}

constexpr char shortOptions[] = "r:a:f:ic:e:d";

constexpr option longOptions[] = {
    {"alloc", required_argument, nullptr, 'a'},
    {"free", required_argument, nullptr, 'f'},
    {"interactive", no_argument, nullptr, 'i'},
    {"allocfree", required_argument, nullptr, 'e'},
    {"initdeinit", no_argument, nullptr, 'd'},
    {"count", required_argument, nullptr, 'c'},
    {"registerunregister", required_argument, nullptr, 'r'},
    {nullptr, 0, nullptr, 0},
};

// Options are carried out in their order, so a count holds for the tests behind it.
void apply_option(int letter, int &cnt)
{
    switch (letter) {
    case 'a':
        SAY("allocate gpio-%d\n", stoi(optarg));
        return;
    case 'f':
        SAY("free gpio-%d\n", stoi(optarg));
        return;
    case 'c':
        cnt = stoi(optarg);
        SAY("setting cnt to %d\n", cnt);
        return;
    case 'e':
        return print_verdict("__alloc_free_gpio", __alloc_free_gpio(stoi(optarg), cnt));
    case 'd':
        return print_verdict("__init_deinit_gpio", __init_deinit_gpio(cnt));
    case 'r':
        return print_verdict("__register_unregister_gpio", __register_unregister_gpio(stoi(optarg), cnt));
    case 'i':
        return run_console();
    default:
        SAY("invalid argument\n");
        return __print_help();
    }
}

// The mode changes while the module is stopped, so no operation meets the change halfway.
void switch_simulator_on()
{
    SAY("----------------------------\n");
    SAY("\tsimulator on\n");
    SAY("----------------------------\n");
    kiv_gpio_deinit();
    kiv_gpio_set_simulator_mode(1);
    kiv_gpio_init();
}

} // namespace

void kiv::print_gpio_test_help()
{
    __print_help();
}

int test_gpio(int argc, char **argv, unsigned testFlags)
{
    KIV_LOG_PRNT(HASHES);
    KIV_LOG_PRNT("\t\t GPIO TEST MENU\n");
    KIV_LOG_PRNT(HASHES);
    if ((testFlags & KIV_TEST_FLAG_SIMULATOR) != 0) {
        switch_simulator_on();
    }
    int cnt = 0;
    kiv::for_each_option(
        argc, argv, shortOptions, longOptions, [&cnt](int letter) { apply_option(letter, cnt); },
        [site = kiv::call_site::here()](int words, int letter) {
            KIV_LOG_AT(site, PRNT, "param [%2d / %2d] is '%c' (%d)\n", optind, words, letter, letter);
        });
    return 0;
}
