#include "zol/kiv_gpio.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "common/tsan.h"
#include "support/gpio_test.h"

using zol_test::calls;
using zol_test::eventually;
using zol_test::gpio_operation;
using zol_test::log_capture;
using strings = std::vector<std::string>;
using statuses = std::vector<int32_t>;

namespace
{

using Gpio = zol_test::GpioTest;

TEST_F(Gpio, PinsAndInterruptsOutliveAStop)
{
    calls calls;
    request_and_watch(17, calls);
    request(5);
    const long descriptors = open_descriptors();
    for (const long round : {1, 2, 3}) {
        log_capture log;
        EXPECT_EQ(kiv_gpio_init(), KIV_ERR_STATE);
        EXPECT_EQ(kiv_gpio_deinit(), KIV_OK);
        EXPECT_EQ((statuses{kiv_gpio_deinit(), kiv_gpio_free(17), kiv_gpio_unregister_callback(17),
                            watch(5, calls)}),
                  statuses(4, KIV_ERR_STATE));
        EXPECT_EQ(log.texts("ERRR"),
                  (strings{"module initialized already", "Trying to deinitialize uninitialized module",
                           "Module is not initialized, gpio 17", "Module is not initialized, gpio 17",
                           "Module is not initialized, gpio 5"}));
        EXPECT_EQ(kiv_gpio_set(5, 1), KIV_OK) << "levels need no listener";
        pins_.raise(17, 2);
        EXPECT_EQ(calls.count, 2 * (round - 1));
        EXPECT_EQ(kiv_gpio_init(), KIV_OK);
        EXPECT_TRUE(calls.become(2 * round)) << "nothing was lost meanwhile";
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Gpio, UnallocatedNumbersAndNullAreRefused)
{
    calls calls;
    int value = 7;
    request(17);
    log_capture log;
    EXPECT_EQ((statuses{kiv_gpio_set(5, 1), kiv_gpio_get(5, &value), kiv_gpio_get(5, nullptr),
                        kiv_gpio_direction_in(5), kiv_gpio_direction_out(-1), watch(5, calls),
                        kiv_gpio_unregister_callback(5), kiv_gpio_free(5)}),
              statuses(8, KIV_ERR_INVALID_PARAM));
    EXPECT_EQ(log.texts("ERRR"), strings(8, "Failed to find the gpio - gpio is not allocated."));
    EXPECT_EQ((statuses{kiv_gpio_get(17, nullptr), kiv_gpio_request(17, nullptr),
                        kiv_gpio_register_callback(17, KIV_GPIO_EDGE, 0, 0, nullptr, 0)}),
              statuses(3, KIV_ERR_INVALID_PARAM));
    EXPECT_TRUE(log.has("ERRR", "Got NULL as destination for output!"));
    EXPECT_EQ((statuses{kiv_gpio_direction_in(17), kiv_gpio_direction_out(17)}), statuses(2, KIV_OK));
    EXPECT_EQ(pins_.take_writes(), strings{});
}

TEST_F(Gpio, LevelsAreTextOfTheirNodeAndFailuresAreReported)
{
    request(5);
    for (const int level : {1, 0, -256}) {
        EXPECT_EQ(kiv_gpio_set(5, level), KIV_OK);
    }
    EXPECT_EQ(pins_.take_writes(), (strings{{"5 level 1\0", 10}, {"5 level 0\0", 10}, {"5 level 1\0", 10}}));
    int value = 7;
    const std::pair<std::string, int> cases[] = {
        {"5\n", 1},  {"0", 0},   {"0\n", 0}, {"1", 1},          {" +1", 1},
        {"-1\n", 1}, {"low", 0}, {"0x1", 0}, {"4294967296", 1}, {std::string(20, '0') + "1", 0}};
    for (const auto &[text, level] : cases) {
        pins_.set_text(5, "level", text);
        EXPECT_EQ(kiv_gpio_get(5, &value), KIV_OK);
        EXPECT_EQ(value, level) << text;
    }
    log_capture log;
    pins_.set_text(5, "level", "");
    EXPECT_EQ(kiv_gpio_get(5, &value), KIV_OK);
    for (const auto operation : {gpio_operation::write, gpio_operation::read, gpio_operation::seek}) {
        value = 7;
        pins_.fail(5, "level", operation);
        EXPECT_EQ(kiv_gpio_set(5, 1), KIV_OK);
        EXPECT_EQ(kiv_gpio_get(5, &value), KIV_OK);
        EXPECT_EQ(value, 0);
        pins_.mend(5, "level");
    }
    const strings errors = log.texts("ERRR");
    const char *const expected[] = {"got EOF from fd", "failed writing to fd=", "got EOF from fd",
                                    "failed reading from fd=", "failed seeking fd="};
    EXPECT_TRUE(
        std::equal(errors.begin(), errors.end(), std::begin(expected), std::end(expected),
                   [](const std::string &said, const char *begin) { return said.starts_with(begin); }))
        << log.out();
}

TEST_F(Gpio, ANumberCanBeAllocatedTwice)
{
    calls calls;
    request_and_watch(17, calls, "older");
    EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
    request_and_watch(17, calls, "newer");
    zol_test::set_debug_level(3);
    log_capture log;
    EXPECT_EQ(kiv_gpio_status_dump(), KIV_OK);
    const strings dump = log.texts("INF1");
    ASSERT_EQ(dump.size(), 1U + 6U + 6U + 1U);
    EXPECT_EQ(dump[2], "GPIO no.17 :           newer");
    EXPECT_EQ(dump[5], "level_edge\t:0x00000002");
    EXPECT_EQ(dump[8], "GPIO no.17 :           older");
    EXPECT_EQ(dump[10], "cbk\t\t:0x00000000, \t\tuser_data=0xffffffff");
    EXPECT_EQ(dump[12], "edge_cfg=\t:0xffffffff, \t\tlevel_cfg=0xffffffff");
    EXPECT_EQ(kiv_gpio_free(17), KIV_OK);
    EXPECT_EQ(watch(17, calls), KIV_OK) << "the registration went with the newer one";
    pins_.raise(17);
    EXPECT_TRUE(calls.become(1));
    EXPECT_EQ(kiv_gpio_free(17), KIV_OK);
    EXPECT_EQ(kiv_gpio_free(17), KIV_ERR_INVALID_PARAM);
}

TEST_F(Gpio, PinsStaySimulatedOrTheBoards)
{
    calls of_5;
    calls of_17;
    int value = 0;
    log_capture log;
    const long descriptors = open_descriptors();
    request(17);
    kiv_gpio_set_simulator_mode(1);
    request(5);
    request_and_watch(6, of_5);
    ASSERT_EQ(watch(17, of_17), KIV_OK) << "the board's";
    EXPECT_EQ(pins_.take_writes().size(), 3U);
    kiv_gpio_set_simulator_mode(0);
    EXPECT_EQ(kiv_gpio_set(5, -7), KIV_OK);
    EXPECT_EQ(kiv_gpio_get(5, &value), KIV_OK);
    EXPECT_EQ(value, -7);
    EXPECT_EQ(watch(5, of_5), KIV_OK);
    EXPECT_EQ(kiv_gpio_get(5, &value), KIV_OK);
    EXPECT_EQ(value, 0) << "unmasking is written last";
    pins_.raise(5);
    pins_.raise(17, 3);
    EXPECT_TRUE(of_17.become(3));
    EXPECT_EQ(of_5.count, 0);
    EXPECT_EQ(kiv_gpio_unregister_callback(5), KIV_OK);
    for (const int gpio : {5, 6, 17}) {
        EXPECT_EQ(kiv_gpio_free(gpio), KIV_OK);
    }
    EXPECT_EQ(log.out(), "") << "each end of a pipe is closed once";
    EXPECT_EQ(pins_.take_writes(), strings{});
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Gpio, RegistrationEnablesTheInterruptInOrder)
{
    constexpr int gpio = 70'000;
    calls first;
    calls second;
    request(gpio);
    zol_test::set_debug_level(3);
    log_capture log;
    ASSERT_EQ(kiv_gpio_register_callback(gpio, 12, 3, 4, calls::note, reinterpret_cast<uintptr_t>(&first)),
              KIV_OK);
    EXPECT_EQ(pins_.take_writes(), (strings{{"70000 irqrequest 1\0", 19},
                                            "70000 irqconfig 12" + std::string(62, '\0'),
                                            {"70000 irqmask 0\0", 16}}));
    EXPECT_TRUE(log.has("INF1", "Command register cbk for gpio 4464")) << "the low half of the number";
    EXPECT_EQ(watch(gpio, second), KIV_ERR_INVALID_PARAM);
    pins_.raise(gpio);
    EXPECT_TRUE(first.become(1)) << "which stays in force";
    EXPECT_EQ(first.last_gpio, gpio);
    EXPECT_EQ(kiv_gpio_unregister_callback(gpio), KIV_OK);
    EXPECT_EQ(kiv_gpio_unregister_callback(gpio), KIV_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.has("INF1", "Command unregister cbk for gpio 4464"));
    pins_.raise(gpio, 3);
    EXPECT_EQ(pins_.take_writes(), strings{}) << "the board's interrupt stays as it is";
    EXPECT_EQ(watch(gpio, second), KIV_OK);
    EXPECT_TRUE(second.become(3)) << "counted by the board, and not lost";
    EXPECT_EQ(first.count, 1);
}

TEST_F(Gpio, CountsThatCannotBeAreNoCalls)
{
    calls calls;
    request_and_watch(17, calls);
    log_capture log;
    for (const auto &[text, said] : {std::pair{"-3", "-3"},
                                     {"2147483648", "2147483648"},
                                     {"99999999999999999999999", "9223372036854775807"}}) {
        pins_.set_text(17, "irq", text);
        pins_.raise(17);
        const std::string line =
            std::string("gpio 17 claims ") + said + " interrupts, which is not to be believed";
        EXPECT_TRUE(eventually([&] { return log.has("ERRR", line); }));
        const long so_far = calls.count;
        pins_.set_text(17, "irq", "31\n"); // a good one in between, or the pin would be given up
        pins_.raise(17);
        EXPECT_TRUE(calls.become(so_far + 31));
    }
    pins_.set_text(17, "irq", "none");
    pins_.raise(17);
    EXPECT_TRUE(eventually([&] { return log.texts("ERRR").size() == 4; }));
    EXPECT_TRUE(log.texts("ERRR")[3].starts_with("got no number from fd"));
    EXPECT_EQ(calls.count, 3 * 31);
}

TEST_F(Gpio, AHugeCountHoldsNobodyUpAndOutlastsAStop)
{
    calls calls;
    request_and_watch(17, calls);
    request(5);
    pins_.raise(17, INT_MAX);
    EXPECT_TRUE(eventually([&] { return calls.count > 0; }));
    EXPECT_EQ(kiv_gpio_set(5, 1), KIV_OK);
    EXPECT_EQ(kiv_gpio_deinit(), KIV_OK);
    const long at_the_stop = calls.count;
    EXPECT_EQ(kiv_gpio_init(), KIV_OK);
    EXPECT_TRUE(eventually([&] { return calls.count > at_the_stop; }));
    EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
    const long at_the_end = calls.count;
    EXPECT_EQ(kiv_gpio_free(5), KIV_OK); // a pass
    EXPECT_EQ(calls.count, at_the_end);
    EXPECT_LT(at_the_end, INT_MAX);
}

TEST_F(Gpio, ANodeThatWakesForNothingIsGivenUp)
{
    calls calls;
    request_and_watch(17, calls);
    pins_.set_text(17, "irq", "0\n");
    log_capture log;
    EXPECT_TRUE(eventually([&] {
        pins_.raise(17);
        return log.has("ERRR", "gpio 17 keeps waking up for nothing and is no longer watched");
    }));
    EXPECT_EQ(calls.count, 0);
    EXPECT_EQ(log.texts("ERRR").size(), 1U);
}

TEST_F(Gpio, ANodeThatKeepsFailingIsGivenUp)
{
    calls failing;
    calls others;
    request_and_watch(17, failing);
    request_and_watch(5, others);
    for (const gpio_operation operation : {gpio_operation::read, gpio_operation::seek}) {
        log_capture log;
        pins_.fail(17, "irq", operation);
        pins_.raise(17, 2);
        EXPECT_TRUE(eventually(
            [&] { return log.has("ERRR", "gpio 17 keeps reporting errors and is no longer watched"); }));
        EXPECT_EQ(kiv_gpio_deinit(), KIV_OK);
        EXPECT_EQ(kiv_gpio_init(), KIV_OK);
        const long so_far = others.count;
        pins_.raise(5);
        EXPECT_TRUE(others.become(so_far + 1)) << "the others are watched on";
        EXPECT_EQ(log.texts("ERRR").size(), 4U) << "three failures, one farewell; a restart changes nothing";

        pins_.mend(17, "irq");
        EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
        const long called = failing.count;
        EXPECT_EQ(watch(17, failing), KIV_OK);
        EXPECT_TRUE(failing.become(called + 2)) << "registered anew it works, and the count was not lost";
    }
}

TEST_F(Gpio, CommandsAreServedWhilePollFailsForAllPins)
{
    calls calls;
    request_and_watch(17, calls);
    request_and_watch(5, calls);
    rlimit former = {};
    getrlimit(RLIMIT_NOFILE, &former);
    const rlimit one = {1, former.rlim_max}; // fewer than a pin and the command pipe
    log_capture log;
    setrlimit(RLIMIT_NOFILE, &one);
    const int32_t first = kiv_gpio_unregister_callback(17);
    EXPECT_TRUE(eventually([&] { return log.has("ERRR", "Error in poll, ret=0xffffffff"); }));
    const int32_t second = kiv_gpio_unregister_callback(5);
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_EQ((statuses{first, second}), statuses(2, KIV_OK));
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
#if defined(KIV_TSAN)
        _exit(refused ? 0 : 1); // no such child can start a thread
#endif
        const bool starts = kiv_gpio_init() == KIV_OK && kiv_gpio_free(17) == KIV_OK;
        _exit(refused && starts ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(kiv_gpio_free(17), KIV_OK) << "the parent's goes on";
}

TEST_F(Gpio, CallbacksMayNotCallTheModule)
{
    static calls calls;
    static int value = 7;
    static statuses refusals;
    static std::atomic<bool> is_done{false};
    const auto offend = [](int32_t, uintptr_t) {
        refusals = {kiv_gpio_init(),
                    kiv_gpio_deinit(),
                    kiv_gpio_request(6, "6"),
                    kiv_gpio_free(17),
                    kiv_gpio_set(17, 1),
                    kiv_gpio_get(17, &value),
                    kiv_gpio_direction_in(17),
                    kiv_gpio_direction_out(17),
                    kiv_gpio_status_dump(),
                    watch(5, calls),
                    kiv_gpio_unregister_callback(17)};
        is_done = true;
        return 0;
    };
    request(17);
    request(5);
    ASSERT_EQ(kiv_gpio_register_callback(17, KIV_GPIO_EDGE, 0, 0, offend, 0), KIV_OK);
    pins_.take_writes();
    log_capture log;
    pins_.raise(17);
    ASSERT_TRUE(eventually([] { return is_done.load(); }));
    EXPECT_EQ(refusals, statuses(11, KIV_ERR_STATE));
    EXPECT_EQ(log.texts("ERRR"), strings(11, "not to be called from a callback"));
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
        static const std::pair<int32_t, const char *> documented[] = {
            {KIV_ERR_OPEN, "open"},       {KIV_ERR_NO_MEMORY, "_Zn"},
            {KIV_ERR_SYSTEM, "pipe2"},    {KIV_ERR_SYSTEM, "pthread_attr_init"},
            {KIV_ERR_SYSTEM, "sem_init"}, {KIV_ERR_SYSTEM, "pthread_create"},
            {KIV_ERR_SYSTEM, "write"}};
        return std::any_of(std::begin(documented), std::end(documented), [status](const auto &each) {
            return each.first == status && zol_test::failed_call().starts_with(each.second);
        });
    }

    // A whole life, in which a step that failed is taken once more.
    std::string live()
    {
        log_capture log;
        calls calls;
        int value = 0;
        std::string complaint;
        const auto raise = [&] {
            pins_.raise(17, 2);
            return GetParam() || calls.become(2) ? KIV_OK : KIV_ERR_TIMEOUT;
        };
        const std::pair<const char *, std::function<int32_t()>> steps[] = {
            {"init", [] { return kiv_gpio_init(); }},
            {"request", [] { return kiv_gpio_request(5, "first"); }},
            {"free", [] { return kiv_gpio_free(5); }}, // the listener has started now, and waits
            {"request", [] { return kiv_gpio_request(17, "swept"); }},
            {"set", [] { return kiv_gpio_set(17, 1); }},
            {"get", [&] { return kiv_gpio_get(17, &value); }},
            {"register", [&] { return watch(17, calls); }},
            {"raise", raise},
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
        const std::string failed = zol_test::failed_call();
        if (failed != "read" && failed.empty() != log.texts("ERRR").empty()) { // a command is read again
            complaint += failed.empty() ? "an error line without an error" : "unreported";
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
