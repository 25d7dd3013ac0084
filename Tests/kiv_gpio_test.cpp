#include "zol/kiv_gpio.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/gpio_test.h"

using zol_test::calls;
using zol_test::eventually;
using zol_test::log_capture;
using zol_test::watch;
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
        EXPECT_EQ((statuses{kiv_gpio_init(), kiv_gpio_deinit(), kiv_gpio_deinit(), kiv_gpio_free(17),
                            kiv_gpio_unregister_callback(17), watch(5, calls), kiv_gpio_set(5, 1)}),
                  (statuses{KIV_ERR_STATE, KIV_OK, KIV_ERR_STATE, KIV_ERR_STATE, KIV_ERR_STATE, KIV_ERR_STATE,
                            KIV_OK}))
            << "levels need no listener";
        EXPECT_EQ(log.texts("ERRR"),
                  (strings{"module initialized already", "Trying to deinitialize uninitialized module",
                           "Module is not initialized, gpio 17", "Module is not initialized, gpio 17",
                           "Module is not initialized, gpio 5"}));
        pins_.raise(17, 2);
        EXPECT_EQ(calls.count, 2 * (round - 1));
        EXPECT_EQ(kiv_gpio_init(), KIV_OK);
        EXPECT_TRUE(calls.become(2 * round)) << "nothing was lost meanwhile";
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Gpio, RefusesUnallocatedNumbersAndNull)
{
    calls calls;
    int value = 7;
    request(17);
    log_capture log;
    EXPECT_EQ((statuses{kiv_gpio_set(17 + 256, 1), kiv_gpio_get(5, nullptr), kiv_gpio_direction_in(5),
                        kiv_gpio_direction_out(-1), watch(5, calls), kiv_gpio_unregister_callback(5),
                        kiv_gpio_free(5)}),
              statuses(7, KIV_ERR_INVALID_PARAM));
    EXPECT_EQ(log.texts("ERRR"), strings(7, "Failed to find the gpio - gpio is not allocated."));
    EXPECT_EQ((statuses{kiv_gpio_get(17, nullptr), kiv_gpio_request(17, nullptr),
                        watch(17, kiv_gpio_cbk(nullptr))}),
              statuses(3, KIV_ERR_INVALID_PARAM));
    EXPECT_TRUE(log.has("ERRR", "Got NULL as destination for output!"));
    EXPECT_EQ(
        (statuses{kiv_gpio_direction_in(17), kiv_gpio_direction_out(17), kiv_gpio_get(17, &value), value}),
        statuses(4, 0));
}

TEST_F(Gpio, LevelsAreTextOfTheirNode)
{
    request(5);
    int value = 7;
    zol_test::fake_gpio_node &level = pins_.node(5, "level");
    EXPECT_EQ((statuses{kiv_gpio_set(5, 0), kiv_gpio_set(5, -256)}), statuses(2, KIV_OK));
    EXPECT_EQ(pins_.take_writes(), (strings{{"5 level 0\0", 10}, {"5 level 1\0", 10}}));
    const std::pair<const char *, int> cases[] = {
        {"5\n", 1}, {"0\n", 0}, {" +1", 1}, {"-1\n", 1}, {"4294967296", 1}, {"000000000000000000001", 0}};
    for (const auto &[text, expected] : cases) {
        level.text = text;
        EXPECT_EQ(kiv_gpio_get(5, &value), KIV_OK);
        EXPECT_EQ(value, expected) << text;
    }
    int last = 7;
    level.text = "00000000000000000001"; // as many digits as a number may have
    int32_t status = kiv_gpio_get(5, &value);
    level.text = "0"; // and nothing of the text before it
    status += kiv_gpio_get(5, &last);
    EXPECT_EQ((statuses{status, value, last}), (statuses{0, 1, 0}));
    level.text = "";
    const std::pair<zol_test::gpio_failure, const char *> failures[] = {
        {zol_test::on_nothing, "got EOF from fd"},
        {zol_test::on_read, "failed reading from fd="},
        {zol_test::on_seek, "failed seeking fd="},
        {zol_test::on_write, "failed writing to fd="}};
    for (const auto &[failing, said] : failures) {
        log_capture log;
        level.failing = failing;
        value = 7;
        EXPECT_EQ((statuses{kiv_gpio_set(5, 1), kiv_gpio_get(5, &value), value}), statuses(3, 0));
        EXPECT_TRUE(log.texts("ERRR").front().starts_with(said)) << log.out();
    }
}

TEST_F(Gpio, PinsOfOneNumberShareItsInterrupts)
{
    calls older;
    calls newer;
    request_and_watch(17, older, "older");
    request_and_watch(17, newer, "newer");
    for (long raised = 1; raised <= 5000; ++raised) {
        pins_.raise(17); // one finds nothing, and is not to stop looking
        EXPECT_TRUE(eventually([&] { return older.count + newer.count == raised; }));
    }
    EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
    zol_test::set_debug_level(3);
    log_capture log;
    EXPECT_EQ(kiv_gpio_status_dump(), KIV_OK);
    const strings dump = log.texts("INF1");
    ASSERT_EQ(dump.size(), 1U + 6U + 6U + 1U);
    EXPECT_EQ(dump[2], "GPIO no.17 :           newer");
    EXPECT_EQ(dump[4], "cbk\t\t:0x00000000, \t\tuser_data=0xffffffff");
    EXPECT_EQ(dump[6], "edge_cfg=\t:0xffffffff, \t\tlevel_cfg=0xffffffff");
    EXPECT_EQ(dump[8], "GPIO no.17 :           older");
    EXPECT_EQ(dump[11], "level_edge\t:0x00000002");
    EXPECT_EQ(kiv_gpio_free(17), KIV_OK);
    pins_.raise(17, 3);
    EXPECT_TRUE(eventually([&] { return older.count + newer.count == 5003; }));
    EXPECT_EQ((statuses{kiv_gpio_free(17), kiv_gpio_free(17)}), (statuses{KIV_OK, KIV_ERR_INVALID_PARAM}));
}

TEST_F(Gpio, PinsStaySimulatedOrTheBoards)
{
    calls calls;
    int value = 0;
    log_capture log;
    const long descriptors = open_descriptors();
    request(17);
    kiv_gpio_set_simulator_mode(1);
    request_and_watch(5, calls);
    ASSERT_EQ(watch(17, calls), KIV_OK);
    EXPECT_EQ(pins_.take_writes().size(), 3U);
    {
        log_capture refusal;
        const kiv::unique_fd standard_input(dup(STDIN_FILENO));
        close(STDIN_FILENO);
        EXPECT_EQ(kiv_gpio_request(6, "pin"), KIV_ERR_SYSTEM) << "0 is no end of a pipe";
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "nothing is left open";
        dup2(standard_input.get(), STDIN_FILENO);
        EXPECT_EQ(refusal.texts("ERRR"),
                  (strings{"FDs should have been created before calling this function.",
                           "failed opening irq for gpio 6", "the node of gpio 6 does not open, errno 9"}));
    }
    kiv_gpio_set_simulator_mode(0);
    EXPECT_EQ((statuses{kiv_gpio_set(5, -7), kiv_gpio_get(5, &value), value}),
              (statuses{KIV_OK, KIV_OK, -7}));
    pins_.raise(5);
    pins_.raise(17, 3);
    EXPECT_TRUE(calls.become(3));
    EXPECT_EQ((statuses{kiv_gpio_free(5), kiv_gpio_free(17)}), statuses(2, KIV_OK));
    EXPECT_EQ(log.out(), "") << "each end of a pipe is closed once";
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Gpio, RegistrationEnablesTheInterruptInOrder)
{
    constexpr int gpio = 70'000;
    calls first;
    calls second;
    request(gpio);
    request(5);
    EXPECT_EQ(kiv_gpio_free(5), KIV_OK); // the listener has started now
    zol_test::set_debug_level(3);
    log_capture log;
    EXPECT_EQ(watch(gpio, first), KIV_OK);
    EXPECT_EQ(pins_.take_writes(), (strings{{"70000 irqrequest 1\0", 19},
                                            "70000 irqconfig 2" + std::string(63, '\0'),
                                            {"70000 irqmask 0\0", 16}}));
    EXPECT_TRUE(log.has("INF1", "Command register cbk for gpio 4464")) << "the low half of the number";
    EXPECT_EQ(watch(gpio, second), KIV_ERR_INVALID_PARAM);
    pins_.raise(gpio);
    EXPECT_TRUE(first.become(1)) << "which stays in force";
    EXPECT_EQ(first.last_gpio, gpio);
    EXPECT_EQ(kiv_gpio_unregister_callback(gpio), KIV_OK);
    EXPECT_TRUE(log.has("INF1", "Command unregister cbk for gpio 4464"));
    pins_.raise(gpio, 257); // one more than a pass calls back
    EXPECT_EQ(pins_.take_writes(), strings{}) << "the board's interrupt stays as it is";
    EXPECT_EQ(watch(gpio, second), KIV_OK);
    EXPECT_TRUE(second.become(257)) << "counted by the board, and not lost";
    EXPECT_EQ(first.count, 1);
    EXPECT_EQ(kiv_gpio_free(gpio), KIV_OK);
    EXPECT_TRUE(log.has("INF1", "---got 0xdeadbeef ---"));
    EXPECT_EQ(log.count("INF1", "no irq fds are set"), 2U) << "in the passes of the registrations";
}

} // namespace
