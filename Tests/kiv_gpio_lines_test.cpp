// Pins that are lines of GPIO character devices. Scripts/arm.sh board tests them on real kernels.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_chips.h"
#include "support/gpio_test.h"

using zol_test::calls;
using zol_test::eventually;
using zol_test::fake_chips;
using zol_test::log_capture;
using strings = std::vector<std::string>;
using statuses = std::vector<int32_t>;

namespace
{

class GpioLines : public zol_test::GpioTest
{
protected:
    // Starts the module with these keys besides those that it needs.
    void restart(const std::string &keys)
    {
        kiv_gpio_deinit();
        kiv_config_deinit();
        const std::string general = "<configName>lines</configName>" + keys;
        kiv_config_init(scratch_.write("conf.xml", zol_test::configuration(general)).c_str());
        EXPECT_EQ(kiv_gpio_init(), KIV_OK) << keys;
    }

    void restart_with_chips(const std::string &keys = "")
    {
        restart("<gpio_chips_num>2</gpio_chips_num><gpio_chip_0_dev>expander</gpio_chip_0_dev>"
                "<gpio_chip_1_dev>/dev/gpiochip0</gpio_chip_1_dev><gpio_chip_1_first>8</gpio_chip_1_first>" +
                keys);
        chips_.seen.clear();
    }

    static int32_t watch(int level_edge, int edge_cfg, calls &calls)
    {
        return kiv_gpio_register_callback(9, level_edge, edge_cfg, 0, calls::note,
                                          reinterpret_cast<uintptr_t>(&calls));
    }

    fake_chips chips_{{{"soc", 32}, {"expander", 8}}};
};

TEST_F(GpioLines, ALineIsTakenAsItIsAndBecomesAnOutputWhenItIsSet)
{
    restart_with_chips("<gpio_chip_0_first>0</gpio_chip_0_first>"
                       "<gpio_39_active_low>1</gpio_39_active_low><gpio_39_bias>disabled</gpio_39_bias>"
                       "<gpio_8_active_low>1</gpio_8_active_low>"
                       "<gpio_7_bias>pull-up</gpio_7_bias><gpio_7_debounce_us>5000</gpio_7_debounce_us>");
    int value = 7;
    request(3, "a name of thirty-one characters and more");
    EXPECT_EQ((statuses{kiv_gpio_get(3, &value), value, kiv_gpio_set(3, -1), kiv_gpio_get(3, &value), value,
                        kiv_gpio_set(3, 0), kiv_gpio_get(3, &value), value, kiv_gpio_set(3, 2),
                        kiv_gpio_get(3, &value), value}),
              (statuses{0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1}));
    request(8);
    request(39);
    request(7);
    EXPECT_EQ(kiv_gpio_set(7, 0), KIV_OK);
    EXPECT_EQ(chips_.seen,
              (strings{"request 1.3 a name of thirty-one characters", "flags 0", "flags 8 level 1", "set 0",
                       "set 1", "request 0.0 pin", "flags 2", "request 0.31 pin", "flags 1030",
                       "request 1.7 pin", "flags 260 debounce 5000", "flags 264 level 0"}));
    request(40);
    EXPECT_EQ(kiv_gpio_set(40, 1), KIV_OK);
    EXPECT_EQ(pins_.take_writes().size(), 1U) << "a pin outside of all chips is the board's";
}

TEST_F(GpioLines, EdgesAreCountedExactlyAndLossesAreReported)
{
    restart_with_chips("<gpio_9_debounce_us>7</gpio_9_debounce_us>");
    calls rising;
    calls both;
    request(9);
    log_capture log;
    EXPECT_EQ((statuses{watch(KIV_GPIO_LEVEL, 1, rising), watch(KIV_GPIO_EDGE, 0, rising),
                        watch(KIV_GPIO_EDGE, 4, rising), watch(KIV_GPIO_EDGE, KIV_GPIO_EDGE_RISING, rising)}),
              (statuses{KIV_ERR_INVALID_PARAM, KIV_ERR_INVALID_PARAM, KIV_ERR_INVALID_PARAM, KIV_OK}));
    for (long i = 0; i < 1000; ++i) {
        chips_.raise();
    }
    EXPECT_TRUE(rising.become(1000));
    EXPECT_EQ(kiv_gpio_set(9, 1), KIV_OK);
    chips_.raise(5);
    EXPECT_TRUE(rising.become(1001));
    EXPECT_EQ(kiv_gpio_unregister_callback(9), KIV_OK);
    EXPECT_EQ(kiv_gpio_set(9, 1), KIV_OK);
    EXPECT_EQ(watch(KIV_GPIO_EDGE, KIV_GPIO_EDGE_BOTH, both), KIV_OK);
    chips_.raise();
    EXPECT_TRUE(both.become(1)) << "an edge from before is not for the next callback";
    EXPECT_EQ(chips_.seen, (strings{"request 0.1 pin", "flags 4 debounce 7", "flags 20 debounce 7",
                                    "flags 4 debounce 7", "flags 8 level 1", "flags 52 debounce 7"}));
    EXPECT_EQ(log.texts("ERRR"),
              (strings{"gpio 9: level_edge 1, edge_cfg 1: a line of a GPIO chip has edges only, 1 to 3",
                       "gpio 9: level_edge 2, edge_cfg 0: a line of a GPIO chip has edges only, 1 to 3",
                       "gpio 9: level_edge 2, edge_cfg 4: a line of a GPIO chip has edges only, 1 to 3",
                       "gpio 9 is not set, errno 1: it has a callback, so it is an input",
                       "gpio 9 has lost 5 interrupts: they came faster than they were read"}));
}

TEST_F(GpioLines, AChipThatIsRemovedCostsNoTime)
{
    restart_with_chips();
    calls calls;
    request(9);
    ASSERT_EQ(watch(KIV_GPIO_EDGE, KIV_GPIO_EDGE_BOTH, calls), KIV_OK);
    zol_test::set_debug_level(3);
    log_capture log;
    chips_.unbind();
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    zol_test::set_debug_level(1);
    EXPECT_EQ(log.texts("ERRR"), strings{"gpio 9 reports an error, revents 0x10"});
    EXPECT_LT(log.count("INF1", "FD 1, revents 0x10"), 5U);
    int level = 7;
    EXPECT_EQ((statuses{kiv_gpio_get(9, &level), level}), statuses(2, 0));
    EXPECT_EQ(log.texts("ERRR").back(), "gpio 9 is not read, errno 19");
    EXPECT_EQ(kiv_gpio_free(9), KIV_OK);
}

TEST_F(GpioLines, ALineThatIsNotReadIsLeftAloneForAWhile)
{
    restart_with_chips();
    calls calls;
    request(9);
    request(40);
    ASSERT_EQ(watch(KIV_GPIO_EDGE, KIV_GPIO_EDGE_BOTH, calls), KIV_OK);
    zol_test::set_debug_level(2);
    log_capture log;
    chips_.break_line();
    EXPECT_EQ(kiv_gpio_free(40), KIV_OK); // the listener looks at all lines
    EXPECT_TRUE(eventually([&] { return log.has("PRNT", "gpio 9 is tried again every 100 ms"); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(150)); // a retry
    EXPECT_EQ(log.texts("ERRR"), strings{"gpio 9 is not read, errno 21"});
    EXPECT_EQ(log.texts("PRNT").size(), 1U);
}

TEST_F(GpioLines, MistakesAreNamedAndChangeNothingElse)
{
    const std::pair<const char *, const char *> cases[] = {
        {"<gpio_chips_num>17</gpio_chips_num>", "gpio_chips_num is \"17\", not 0 to 16"},
        {"<gpio_chips_num>some</gpio_chips_num>", "gpio_chips_num is \"some\", not 0 to 16"},
        {"<gpio_chips_num>1</gpio_chips_num>", "gpio_chip_0_dev: the chip \"\" does not open, errno 19"},
        {"<gpio_chips_num>1</gpio_chips_num><gpio_chip_0_dev>/dev/gpiochip2</gpio_chip_0_dev>",
         "gpio_chip_0_dev: the chip \"/dev/gpiochip2\" does not open, errno 2"},
        {"<gpio_chips_num>1</gpio_chips_num><gpio_chip_0_first>-1</gpio_chip_0_first>",
         "gpio_chip_0_first is \"-1\", not 0 to 65535"},
        {"<gpio_chips_num>2</gpio_chips_num><gpio_chip_0_dev>soc</gpio_chip_0_dev>"
         "<gpio_chip_1_dev>expander</gpio_chip_1_dev><gpio_chip_1_first>31</gpio_chip_1_first>",
         "gpio_chip_1_first: the pins 31 to 38 of expander overlap 0 to 31 of soc"},
        {"<gpio_chips_num>2</gpio_chips_num><gpio_chip_0_dev>soc</gpio_chip_0_dev>"
         "<gpio_chip_0_first>7</gpio_chip_0_first><gpio_chip_1_dev>expander</gpio_chip_1_dev>",
         "gpio_chip_1_first: the pins 0 to 7 of expander overlap 7 to 38 of soc"},
        {"<gpio_chips_num>3</gpio_chips_num><gpio_chip_0_dev>soc</gpio_chip_0_dev>"
         "<gpio_chip_0_first>8</gpio_chip_0_first><gpio_chip_1_dev>expander</gpio_chip_1_dev>"
         "<gpio_chip_2_dev>expander</gpio_chip_2_dev><gpio_chip_2_first>39</gpio_chip_2_first>",
         "gpio_chip_2_first: the pins 39 to 46 of expander overlap 8 to 39 of soc"},
    };
    for (const auto &[keys, said] : cases) {
        log_capture log;
        restart(keys);
        EXPECT_EQ(log.texts("ERRR"), strings{said});
        request(38);
        EXPECT_EQ(kiv_gpio_free(38), KIV_OK);
        EXPECT_EQ(std::ranges::count(chips_.seen, "request 1.7 pin"), 0) << "of a chip that was refused";
    }
    const struct {
        const char *keys;
        const char *holder;
        int32_t status;
        const char *said;
    } refusals[] = {
        {"<gpio_9_bias>up</gpio_9_bias>", "", KIV_ERR_INVALID_PARAM,
         "gpio_9_bias is \"up\", not pull-up, pull-down or disabled"},
        {"<gpio_9_active_low>2</gpio_9_active_low>", "", KIV_ERR_INVALID_PARAM,
         "gpio_9_active_low is \"2\", not 0 to 1"},
        {"", "power key", KIV_ERR_OPEN, "gpio 9: line 1 of /dev/gpiochip0 is in use by \"power key\""},
    };
    for (const auto &[keys, holder, status, said] : refusals) {
        restart_with_chips(keys);
        chips_.holder = holder;
        log_capture log;
        EXPECT_EQ(kiv_gpio_request(9, "pin"), status);
        EXPECT_EQ(log.texts("ERRR"), strings{said});
    }
    chips_.refusal = EPERM;
    log_capture log;
    EXPECT_EQ(kiv_gpio_request(9, "pin"), KIV_ERR_OPEN);
    EXPECT_EQ(log.texts("ERRR"), strings{"gpio 9: line 1 of /dev/gpiochip0 is refused, errno 1"});
}

} // namespace
