#include "zol/kiv_gpio.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "support/gpio_test.h"

using zol_test::calls;
using zol_test::gpio_operation;
using zol_test::log_capture;
using strings = std::vector<std::string>;

namespace
{

constexpr char not_allocated[] = "Failed to find the gpio - gpio is not allocated.";

class Gpio : public zol_test::GpioTest
{
};

TEST_F(Gpio, StartsOnceAndStopsOnce)
{
    log_capture log;
    EXPECT_EQ(kiv_gpio_init(), KIV_ERR_STATE);
    EXPECT_EQ(kiv_gpio_deinit(), KIV_OK);
    EXPECT_EQ(kiv_gpio_deinit(), KIV_ERR_STATE);
    EXPECT_EQ(log.texts("ERRR"),
              (strings{"module initialized already", "Trying to deinitialize uninitialized module"}));
    const long descriptors = open_descriptors();
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(kiv_gpio_init(), KIV_OK);
        ASSERT_EQ(kiv_gpio_deinit(), KIV_OK);
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Gpio, PinsAndCallbacksOutliveTheModule)
{
    calls calls;
    request(17);
    request(5);
    ASSERT_EQ(watch(17, calls), KIV_OK);
    for (const long round : {1, 2, 3}) {
        EXPECT_EQ(kiv_gpio_deinit(), KIV_OK);
        log_capture log;
        EXPECT_EQ(kiv_gpio_free(17), KIV_ERR_STATE);
        EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_ERR_STATE);
        EXPECT_EQ(watch(5, calls), KIV_ERR_STATE);
        EXPECT_EQ(log.texts("ERRR"),
                  (strings{"Module is not initialized, gpio 17", "Module is not initialized, gpio 17",
                           "Module is not initialized, gpio 5"}));
        EXPECT_EQ(kiv_gpio_set(5, 1), KIV_OK) << "levels need no listener";
        pins_.raise(17, 2);
        EXPECT_EQ(calls.count, 2 * (round - 1));
        EXPECT_EQ(kiv_gpio_init(), KIV_OK);
        EXPECT_TRUE(calls.become(2 * round)) << "what has come in the meantime is not lost";
    }
    EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
    EXPECT_EQ(kiv_gpio_free(17), KIV_OK);
}

TEST_F(Gpio, NumbersThatAreNotAllocatedAreRefused)
{
    request(17);
    pins_.take_writes();
    calls calls;
    int value = 7;
    log_capture log;
    EXPECT_EQ(kiv_gpio_set(5, 1), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_gpio_get(5, &value), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_gpio_get(5, nullptr), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_gpio_direction_in(5), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_gpio_direction_out(-1), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(watch(5, calls), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_gpio_unregister_callback(5), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_gpio_free(5), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(log.texts("ERRR"), strings(8, not_allocated));
    EXPECT_EQ(value, 7);

    EXPECT_EQ(kiv_gpio_get(17, nullptr), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_gpio_request(17, nullptr), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_gpio_register_callback(17, KIV_GPIO_EDGE, 0, 0, nullptr, 0), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(log.count("ERRR", "Got NULL as destination for output!"), 1U);
    EXPECT_EQ(log.texts("ERRR").size(), 8U + 3U);
    EXPECT_EQ(pins_.take_writes(), strings{});
    EXPECT_EQ(kiv_gpio_direction_in(17), KIV_OK);
    EXPECT_EQ(kiv_gpio_direction_out(17), KIV_OK);
}

TEST_F(Gpio, LevelsAreTextOfTheirNode)
{
    request(5);
    EXPECT_EQ(kiv_gpio_set(5, 1), KIV_OK);
    EXPECT_EQ(kiv_gpio_set(5, 0), KIV_OK);
    EXPECT_EQ(kiv_gpio_set(5, -256), KIV_OK);
    EXPECT_EQ(pins_.take_writes(), (strings{{"5 level 1\0", 10}, {"5 level 0\0", 10}, {"5 level 1\0", 10}}));
    const struct {
        const char *text;
        int level;
    } cases[] = {{"5\n", 1},  {"0", 0},   {"0\n", 0}, {"1", 1},         {" +1", 1},
                 {"-1\n", 1}, {"low", 0}, {"0x1", 0}, {"4294967296", 1}};
    for (const auto &[text, level] : cases) {
        pins_.set_text(5, "level", text);
        int value = 7;
        EXPECT_EQ(kiv_gpio_get(5, &value), KIV_OK);
        EXPECT_EQ(value, level) << text;
    }
    pins_.set_text(5, "level", "00000000000000000000000001"); // of which the first 20 bytes are read
    int value = 7;
    EXPECT_EQ(kiv_gpio_get(5, &value), KIV_OK);
    EXPECT_EQ(value, 0);
}

TEST_F(Gpio, LevelsThatFailAreReported)
{
    request(5);
    pins_.set_text(5, "level", "1");
    const struct {
        gpio_operation operation;
        const char *begin, *end;
    } cases[] = {{gpio_operation::seek, "failed seeking fd=", " ret=-1, errno=5!"},
                 {gpio_operation::read, "failed reading from fd=", " ret=-1, errno=5!"},
                 {gpio_operation::write, "failed writing to fd=", " ret=-1, errno=5!"},
                 {gpio_operation::count, "got EOF from fd", ""}};
    for (const auto &[operation, begin, end] : cases) {
        log_capture log;
        int value = 7;
        if (operation == gpio_operation::count) {
            pins_.set_text(5, "level", "");
        } else {
            pins_.fail(5, "level", operation);
        }
        EXPECT_EQ(operation == gpio_operation::write ? kiv_gpio_set(5, 1) : kiv_gpio_get(5, &value), KIV_OK);
        EXPECT_EQ(value, operation == gpio_operation::write ? 7 : 0);
        ASSERT_EQ(log.texts("ERRR").size(), 1U);
        const std::string said = log.texts("ERRR")[0];
        EXPECT_TRUE(said.starts_with(begin) && said.ends_with(end)) << said;
        pins_.fail(5, "level", operation == gpio_operation::count ? gpio_operation::seek : operation, false);
    }
    EXPECT_EQ(pins_.take_writes(), strings{});
}

TEST_F(Gpio, ANumberCanBeAllocatedTwice)
{
    zol_test::set_debug_level(3);
    log_capture log;
    const long descriptors = open_descriptors();
    EXPECT_EQ(kiv_gpio_status_dump(), KIV_OK);
    EXPECT_EQ(log.texts("INF1"), (strings{"<<<<< enter <<<<<", "<<<<< exit  >>>>>"})) << "an empty table";
    request(17, "older");
    request(17, "newer");
    calls calls;
    EXPECT_EQ(watch(17, calls), KIV_OK);
    EXPECT_EQ(kiv_gpio_status_dump(), KIV_OK);
    const strings dump = said_by("__gpio_item_dump", log);
    ASSERT_EQ(dump.size(), 12U);
    EXPECT_EQ(dump[1], "GPIO no.17 :           newer");
    EXPECT_NE(dump[3], "cbk\t\t:0x00000000, \t\tuser_data=0x00000000") << "the newer one has the callback";
    EXPECT_EQ(dump[4], "level_edge\t:0x00000002");
    EXPECT_EQ(dump[7], "GPIO no.17 :           older");
    EXPECT_EQ(dump[9], "cbk\t\t:0x00000000, \t\tuser_data=0x00000000");
    EXPECT_EQ(kiv_gpio_free(17), KIV_OK);
    EXPECT_EQ(watch(17, calls), KIV_OK) << "it went with the newer one";
    pins_.raise(17);
    EXPECT_TRUE(calls.become(1));
    EXPECT_EQ(kiv_gpio_free(17), KIV_OK);
    EXPECT_EQ(kiv_gpio_free(17), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Gpio, NodesThatCannotBeOpenedLeaveNothingBehind)
{
    const struct {
        const char *node;
        gpio_operation operation;
        const char *what;
        bool at_registration;
    } cases[] = {{"level", gpio_operation::open_to_write, "set level", false},
                 {"level", gpio_operation::open_to_read, "get level", false},
                 {"irq", gpio_operation::open_to_read, "irq", false},
                 {"irqmask", gpio_operation::open_to_write, "irq", true},
                 {"irqrequest", gpio_operation::open_to_write, "irq", true},
                 {"irqconfig", gpio_operation::open_to_write, "irq", true}};
    calls calls;
    for (const auto &[node, operation, what, at_registration] : cases) {
        const long descriptors = open_descriptors();
        pins_.fail(17, node, operation);
        {
            log_capture log;
            EXPECT_EQ(kiv_gpio_request(17, "pin"), at_registration ? KIV_OK : KIV_ERR_OPEN);
            EXPECT_EQ(watch(17, calls), at_registration ? KIV_ERR_OPEN : KIV_ERR_INVALID_PARAM);
            const strings errors = log.texts("ERRR");
            ASSERT_GE(errors.size(), 2U);
            EXPECT_EQ(errors[0], "failed opening /sys/user_hw/pins/gpios/gpio_17/" + std::string(node));
            EXPECT_EQ(errors[1], "failed opening " + std::string(what) + " for gpio 17");
        }
        EXPECT_EQ(pins_.take_writes(), strings{});
        pins_.fail(17, node, operation, false);
        if (at_registration) {
            EXPECT_EQ(kiv_gpio_set(17, 1), KIV_OK) << "it is allocated still";
            pins_.take_writes();
            EXPECT_EQ(watch(17, calls), KIV_OK) << "the next registration goes on with what is open";
            EXPECT_EQ(pins_.take_writes().size(), 3U);
            EXPECT_EQ(kiv_gpio_free(17), KIV_OK);
        }
        EXPECT_EQ(open_descriptors(), descriptors) << node;
    }
}

TEST_F(Gpio, SimulatedPinsAreStoredValues)
{
    zol_test::set_debug_level(3);
    EXPECT_EQ(kiv_gpio_set_simulator_mode(5), KIV_OK);
    log_capture log;
    const long descriptors = open_descriptors();
    request(5);
    calls calls;
    int value = 0;
    for (const int stored : {7, -1, 0}) {
        EXPECT_EQ(kiv_gpio_set(5, stored), KIV_OK);
        EXPECT_EQ(kiv_gpio_get(5, &value), KIV_OK);
        EXPECT_EQ(value, stored);
    }
    EXPECT_EQ(open_descriptors(), descriptors + 2) << "the pipe";
    EXPECT_EQ(said_by("__get_level_open", log), strings{"get level dummy fd used."});
    EXPECT_TRUE(said_by("__set_level_open", log).at(0).starts_with("set level fd = "));
    EXPECT_EQ(kiv_gpio_set(5, 7), KIV_OK);
    EXPECT_EQ(watch(5, calls), KIV_OK);
    EXPECT_EQ(kiv_gpio_get(5, &value), KIV_OK);
    EXPECT_EQ(value, 0) << "unmasking is written last";
    for (const std::string node : {"irqmask", "irqrequest", "irqconfig"}) {
        EXPECT_TRUE(said_by("__get_" + node + "_open", log).at(0).starts_with(node + " fd = "));
    }
    pins_.raise(5);
    EXPECT_EQ(kiv_gpio_unregister_callback(5), KIV_OK);
    EXPECT_EQ(watch(5, calls), KIV_OK);
    EXPECT_EQ(kiv_gpio_free(5), KIV_OK);
    EXPECT_EQ(calls.count, 0);
    EXPECT_TRUE(log.texts("ERRR").empty()) << "each end of the pipe is closed once";
    EXPECT_EQ(pins_.take_writes(), strings{});
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Gpio, PinsStayWhatTheyWereAllocatedAs)
{
    calls calls;
    int value = 0;
    request(17);
    kiv_gpio_set_simulator_mode(1);
    request(5);
    ASSERT_EQ(watch(17, calls), KIV_OK) << "the board's";
    EXPECT_EQ(pins_.take_writes().size(), 3U);
    kiv_gpio_set_simulator_mode(0);
    EXPECT_EQ(kiv_gpio_set(5, 7), KIV_OK);
    EXPECT_EQ(kiv_gpio_get(5, &value), KIV_OK);
    EXPECT_EQ(value, 7);
    ASSERT_EQ(watch(5, calls), KIV_OK);
    kiv_gpio_set_simulator_mode(1);
    pins_.raise(17, 3);
    EXPECT_TRUE(calls.become(3));
    log_capture log;
    EXPECT_EQ(kiv_gpio_free(17), KIV_OK);
    kiv_gpio_set_simulator_mode(0);
    EXPECT_EQ(kiv_gpio_free(5), KIV_OK);
    EXPECT_EQ(log.out(), "");
    EXPECT_EQ(pins_.take_writes(), strings{});
}

TEST_F(Gpio, RegistrationEnablesTheInterruptInOrder)
{
    calls first;
    calls second;
    request(70'000);
    zol_test::set_debug_level(3);
    log_capture log;
    ASSERT_EQ(kiv_gpio_register_callback(70'000, 12, 3, 4, calls::note, reinterpret_cast<uintptr_t>(&first)),
              KIV_OK);
    EXPECT_EQ(pins_.take_writes(), (strings{{"70000 irqrequest 1\0", 19},
                                            "70000 irqconfig 12" + std::string(62, '\0'),
                                            {"70000 irqmask 0\0", 16}}));
    EXPECT_TRUE(log.has("INF1", "Command register cbk for gpio 4464")) << "the low half of the number";
    EXPECT_EQ(watch(70'000, second), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(log.texts("ERRR"), strings{"Callback already registered."});
    pins_.raise(70'000);
    EXPECT_TRUE(first.become(1)) << "which stays in force";
    EXPECT_EQ(first.last_gpio, 70'000);
    EXPECT_TRUE(log.has("INF1", "IRQ=1 for gpio 70000"));

    EXPECT_EQ(kiv_gpio_unregister_callback(70'000), KIV_OK);
    EXPECT_TRUE(log.has("INF1", "Command unregister cbk for gpio 4464"));
    EXPECT_EQ(kiv_gpio_unregister_callback(70'000), KIV_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.has("ERRR", "There is no callback registered for this gpio."));
    pins_.raise(70'000, 3);
    EXPECT_EQ(pins_.take_writes(), strings{}) << "the board's interrupt stays as it is";
    kiv_gpio_status_dump();
    EXPECT_TRUE(log.has("INF1", "cbk\t\t:0x00000000, \t\tuser_data=0xffffffff"));
    EXPECT_TRUE(log.has("INF1", "level_edge\t:0xffffffff"));
    EXPECT_TRUE(log.has("INF1", "edge_cfg=\t:0xffffffff, \t\tlevel_cfg=0xffffffff"));
    EXPECT_EQ(first.count, 1);
    EXPECT_EQ(watch(70'000, second), KIV_OK);
    EXPECT_TRUE(second.become(3)) << "counted by the board, and not lost";
    EXPECT_TRUE(log.has("INF1", "---got 0xdeadbeef ---") || kiv_gpio_free(70'000) == KIV_OK);
    EXPECT_TRUE(log.has("INF1", "---got 0xdeadbeef ---")) << "what a free tells the listener";
}

TEST_F(Gpio, NodesThatCannotBeWrittenAtRegistrationAreReported)
{
    calls calls;
    request(17);
    for (const char *node : {"irqrequest", "irqconfig", "irqmask"}) {
        pins_.fail(17, node, gpio_operation::write);
        log_capture log;
        EXPECT_EQ(watch(17, calls), KIV_OK);
        ASSERT_EQ(log.texts("ERRR").size(), 1U);
        EXPECT_TRUE(log.texts("ERRR")[0].starts_with("failed writing to fd="));
        EXPECT_EQ(pins_.take_writes().size(), 2U) << "the others";
        EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
        pins_.fail(17, node, gpio_operation::write, false);
    }
}

TEST_F(Gpio, CountsThatCannotBeAreNoCalls)
{
    calls calls;
    request(17);
    zol_test::set_debug_level(3);
    log_capture log;
    ASSERT_EQ(watch(17, calls), KIV_OK);
    const auto lines = [&](const std::string &level, const std::string &beginning) {
        const strings texts = log.texts(level);
        return std::count_if(texts.begin(), texts.end(),
                             [&](const std::string &text) { return text.starts_with(beginning); });
    };
    const auto raise_as = [&](const std::string &text, const std::string &level, const std::string &said) {
        const auto before = lines(level, said);
        pins_.set_text(17, "irq", text);
        pins_.raise(17);
        ASSERT_TRUE(zol_test::eventually([&] { return lines(level, said) == before + 1; })) << text;
    };
    for (const std::string bad : {"-3", "2147483648", "99999999999999999999999"}) {
        const std::string shown = bad.size() > 20 ? "9223372036854775807" : bad;
        const std::string said = "gpio 17 claims " + shown + " interrupts, which is not to be believed";
        raise_as(bad, "ERRR", said);
        raise_as("none", "ERRR", "got no number from fd");
        raise_as("0\n", "INF1", "IRQ=0 for gpio 17"); // not a third failure, so the pin is watched on
    }
    EXPECT_EQ(calls.count, 0);
    raise_as("31\n", "INF1", "IRQ=1f for gpio 17");
    EXPECT_TRUE(calls.become(31));
    EXPECT_EQ(log.texts("ERRR").size(), 6U);
}

TEST_F(Gpio, AHugeCountHoldsNobodyUpAndOutlastsAStop)
{
    calls calls;
    request(17);
    request(5);
    ASSERT_EQ(watch(17, calls), KIV_OK);
    pins_.raise(17, INT_MAX);
    EXPECT_TRUE(zol_test::eventually([&] { return calls.count > 0; }));
    EXPECT_EQ(kiv_gpio_set(5, 1), KIV_OK);
    EXPECT_EQ(kiv_gpio_deinit(), KIV_OK);
    const long at_the_stop = calls.count;
    EXPECT_EQ(kiv_gpio_init(), KIV_OK);
    EXPECT_TRUE(zol_test::eventually([&] { return calls.count > at_the_stop; }));
    EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
    const long at_the_end = calls.count;
    EXPECT_EQ(kiv_gpio_free(5), KIV_OK); // a pass
    EXPECT_EQ(calls.count, at_the_end);
    EXPECT_LT(at_the_end, INT_MAX);
    requested_.pop_back();
}

TEST_F(Gpio, ANodeThatWakesForNothingIsGivenUp)
{
    calls calls;
    request(17);
    ASSERT_EQ(watch(17, calls), KIV_OK);
    pins_.set_text(17, "irq", "0\n");
    log_capture log;
    EXPECT_TRUE(zol_test::eventually([&] {
        pins_.raise(17);
        return log.has("ERRR", "gpio 17 keeps waking up for nothing and is no longer watched");
    }));
    EXPECT_EQ(calls.count, 0);
    EXPECT_EQ(log.texts("ERRR").size(), 1U);
}

TEST_F(Gpio, CommandsAreServedWhilePollFailsForAllPins)
{
    calls calls;
    for (const int gpio : {17, 5}) {
        request(gpio);
        ASSERT_EQ(watch(gpio, calls), KIV_OK);
    }
    rlimit former = {};
    getrlimit(RLIMIT_NOFILE, &former);
    const rlimit one = {1, former.rlim_max}; // fewer than a pin and the command pipe
    log_capture log;
    setrlimit(RLIMIT_NOFILE, &one);
    const int32_t first = kiv_gpio_unregister_callback(17);
    EXPECT_TRUE(zol_test::eventually([&] { return log.has("ERRR", "Error in poll, ret=0xffffffff"); }));
    const int32_t second = kiv_gpio_unregister_callback(5);
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_EQ(first, KIV_OK);
    EXPECT_EQ(second, KIV_OK);
    EXPECT_EQ(log.texts("ERRR").size(), 1U);
    EXPECT_EQ(watch(5, calls), KIV_OK);
    pins_.raise(5);
    EXPECT_TRUE(calls.become(1));
}

TEST_F(Gpio, AForkedChildHasNoListener)
{
    request(17);
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        calls calls;
        const bool refused = kiv_gpio_free(17) == KIV_ERR_STATE && watch(17, calls) == KIV_ERR_STATE &&
                             kiv_gpio_deinit() == KIV_ERR_STATE;
        const bool starts = kiv_gpio_init() == KIV_OK && kiv_gpio_free(17) == KIV_OK;
        _exit(refused && starts ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(kiv_gpio_free(17), KIV_OK) << "the parent's goes on";
    requested_.clear();
}

TEST_F(Gpio, ANodeThatKeepsFailingIsGivenUp)
{
    constexpr char given_up[] = "gpio 17 keeps reporting errors and is no longer watched";
    calls failing;
    calls others;
    request(17);
    request(5);
    ASSERT_EQ(watch(17, failing), KIV_OK);
    ASSERT_EQ(watch(5, others), KIV_OK);
    for (const gpio_operation operation : {gpio_operation::read, gpio_operation::seek}) {
        zol_test::set_debug_level(3);
        log_capture log;
        pins_.fail(17, "irq", operation);
        pins_.raise(17, 2);
        EXPECT_TRUE(zol_test::eventually([&] { return log.has("ERRR", given_up); }));
        EXPECT_EQ(log.texts("ERRR").size(), 4U) << "three failures, one farewell";
        const auto passes = [&log] { return said_by("__listener_process_events", log); };
        const auto count_passes = [&] {
            const strings said = passes();
            return std::count(said.begin(), said.end(), "<<<<< enter <<<<<");
        };
        const auto before = count_passes();
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ(kiv_gpio_request(6, "passes"), KIV_OK);
            ASSERT_EQ(kiv_gpio_free(6), KIV_OK); // one pass
        }
        EXPECT_EQ(count_passes() - before, 20) << "nothing else wakes the listener";
        EXPECT_EQ(kiv_gpio_deinit(), KIV_OK);
        EXPECT_EQ(kiv_gpio_init(), KIV_OK);
        const long so_far = others.count;
        pins_.raise(5);
        EXPECT_TRUE(others.become(so_far + 1)) << "the others are watched on";
        EXPECT_EQ(log.texts("ERRR").size(), 4U) << "nor does a restart bring it back";

        pins_.fail(17, "irq", operation, false);
        EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
        const long called = failing.count;
        EXPECT_EQ(watch(17, failing), KIV_OK);
        EXPECT_TRUE(failing.become(called + 2)) << "registered anew it works, and the count was not lost";
    }
}

// Everything that is not to be done in a callback, and what came of it there.
struct attempts {
    std::vector<std::function<int32_t()>> operations;
    std::vector<int32_t> statuses;
    std::atomic<bool> done{false};

    static int make(int32_t, uintptr_t user_data)
    {
        auto *const self = reinterpret_cast<attempts *>(user_data);
        for (const auto &operation : self->operations) {
            self->statuses.push_back(operation());
        }
        self->done = true;
        return 0;
    }
};

TEST_F(Gpio, CallbacksMayNotCallTheModule)
{
    static int value = 7;
    calls calls;
    attempts attempts;
    attempts.operations = {[] { return kiv_gpio_init(); },
                           [] { return kiv_gpio_deinit(); },
                           [] { return kiv_gpio_request(6, "pin"); },
                           [] { return kiv_gpio_free(17); },
                           [] { return kiv_gpio_set(17, 1); },
                           [] { return kiv_gpio_get(17, &value); },
                           [] { return kiv_gpio_direction_in(17); },
                           [] { return kiv_gpio_direction_out(17); },
                           [] { return kiv_gpio_status_dump(); },
                           [&] { return watch(5, calls); },
                           [] { return kiv_gpio_unregister_callback(17); }};
    request(17);
    request(5);
    ASSERT_EQ(kiv_gpio_register_callback(17, KIV_GPIO_EDGE, 0, 0, attempts::make,
                                         reinterpret_cast<uintptr_t>(&attempts)),
              KIV_OK);
    pins_.take_writes();
    log_capture log;
    pins_.raise(17);
    ASSERT_TRUE(zol_test::eventually([&] { return attempts.done.load(); }));
    EXPECT_EQ(attempts.statuses, std::vector<int32_t>(attempts.operations.size(), KIV_ERR_STATE));
    EXPECT_EQ(log.texts("ERRR"), strings(attempts.operations.size(), "not to be called from a callback"));
    EXPECT_EQ(value, 7);
    EXPECT_EQ(pins_.take_writes(), strings{});
    EXPECT_EQ(kiv_gpio_set(6, 1), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_gpio_unregister_callback(5), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK) << "the callback was not taken away";
}

class GpioSweep : public Gpio, public testing::WithParamInterface<bool>
{
protected:
    GpioSweep()
    {
        kiv_gpio_set_simulator_mode(GetParam() ? 1 : 0);
        kiv_gpio_deinit();
        EXPECT_EQ(live(), ""); // after which the fake has all its lines
    }

    // What a step that fails says of the call that failed. Every other failure has to be survived.
    static bool is_documented(int32_t status)
    {
        const std::string call = zol_test::failed_call();
        switch (status) {
        case KIV_ERR_OPEN:
            return call == "open";
        case KIV_ERR_NO_MEMORY:
            return call.starts_with("_Zn");
        case KIV_ERR_SYSTEM:
            return call == "pipe2" || call == "sem_init" || call == "pthread_attr_init" ||
                   call == "pthread_create" || call == "write";
        default:
            return false;
        }
    }

    // A whole life, in which a step that failed is taken once more.
    std::string live()
    {
        log_capture log;
        calls calls;
        int value = 0;
        std::string complaint;
        const std::pair<const char *, std::function<int32_t()>> steps[] = {
            {"init", [] { return kiv_gpio_init(); }},
            {"request", [] { return kiv_gpio_request(5, "first"); }},
            {"free", [] { return kiv_gpio_free(5); }}, // the listener has started now, and waits
            {"request", [] { return kiv_gpio_request(17, "swept"); }},
            {"set", [] { return kiv_gpio_set(17, 1); }},
            {"get", [&] { return kiv_gpio_get(17, &value); }},
            {"register", [&] { return watch(17, calls); }},
            {"raise",
             [&] {
                 pins_.raise(17, 2);
                 return GetParam() || calls.become(2) ? KIV_OK : KIV_ERR_TIMEOUT;
             }},
            {"unregister", [] { return kiv_gpio_unregister_callback(17); }},
            {"register", [&] { return watch(17, calls); }},
            {"free", [] { return kiv_gpio_free(17); }},
            {"deinit", [] { return kiv_gpio_deinit(); }},
        };
        for (const auto &[name, step] : steps) {
            if (const int32_t status = step(); status != KIV_OK) {
                refusals_.push_back(name + (" " + std::to_string(status)));
                complaint += is_documented(status) && step() == KIV_OK ? "" : refusals_.back();
            }
        }
        const bool failed = !zol_test::failed_call().empty();
        const bool is_silent = !failed || zol_test::failed_call() == "read"; // a command is read again
        if (failed == log.texts("ERRR").empty() && !(failed && is_silent)) {
            complaint += failed ? "unreported" : "an error line without an error";
        }
        return complaint;
    }

    strings refusals_; // "free -30", whenever a step fails
};

TEST_P(GpioSweep, EveryFailureOnTheWayIsReportedOrSurvived)
{
    const zol_test::sweep_result result = zol_test::sweep_faults([this] { return live(); });
    EXPECT_EQ(result.complaints, "");
    EXPECT_GE(result.failures, GetParam() ? 20 : 40);
}

TEST_P(GpioSweep, WhatTheListenerWasNotToldIsNotDone)
{
    EXPECT_EQ(zol_test::sweep_faults([this] { return live(); }, "write").complaints, "");
    EXPECT_EQ(refusals_, (strings{"free -30", "register -30", "register -30", "free -30"}))
        << "no other write is refused: to a node, of an unregistration, of the stop";
}

INSTANTIATE_TEST_SUITE_P(Pins, GpioSweep, testing::Bool(),
                         [](const auto &simulated) { return simulated.param ? "simulated" : "board"; });

} // namespace
