// The GPIO module, started, on a board whose pins are fake.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>

#include "support/debug_level.h"
#include "support/eventually.h"
#include "support/fake_gpio.h"
#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "support/scratch.h"
#include "zol/kiv_config.h"
#include "zol/kiv_gpio.h"
#include "zol/kiv_status.h"

namespace zol_test
{

/// Counts the calls of a callback.
struct calls {
    std::atomic<long> count{0};
    std::atomic<int> last_gpio{-1};

    static int note(int32_t gpio, uintptr_t user_data)
    {
        auto *const self = reinterpret_cast<calls *>(user_data);
        self->last_gpio = gpio;
        ++self->count;
        return -1; // nobody looks at it
    }

    bool become(long expected)
    {
        return eventually([&] { return count >= expected; }) && count == expected;
    }
};

inline int32_t watch(int gpio, kiv_gpio_cbk callback, void *data = nullptr)
{
    return kiv_gpio_register_callback(gpio, KIV_GPIO_EDGE, KIV_GPIO_EDGE_RISING, 0, callback,
                                      reinterpret_cast<uintptr_t>(data));
}

inline int32_t watch(int gpio, calls &calls)
{
    return watch(gpio, calls::note, &calls);
}

/// Frees its pins and stops the module at its end.
class GpioTest : public testing::Test
{
protected:
    GpioTest()
    {
        alarm(110); // a hang is to end as a failure of this test
        set_debug_level(1);
        EXPECT_EQ(kiv_config_init(scratch_.write("conf.xml", minimal_configuration()).c_str()), 1);
        EXPECT_EQ(kiv_gpio_init(), KIV_OK);
    }

    ~GpioTest() override
    {
        set_debug_level(1);
        log_capture log; // a pin may be free, the module stopped
        kiv_gpio_init();
        for (int gpio = 0; gpio < 100; ++gpio) {
            while (kiv_gpio_free(gpio) == KIV_OK) {
            }
        }
        kiv_gpio_deinit();
        kiv_gpio_set_simulator_mode(0);
        kiv_config_deinit();
        alarm(0);
    }

    static void request(int gpio, const char *name = "pin")
    {
        ASSERT_EQ(kiv_gpio_request(gpio, name), KIV_OK);
    }

    static void request_and_watch(int gpio, calls &calls, const char *name = "pin")
    {
        request(gpio, name);
        ASSERT_EQ(watch(gpio, calls), KIV_OK);
    }

    long open_descriptors() { return entries_of("/proc/self/fd") - pins_.own_descriptors(); }

    scratch_directory scratch_;
    fake_gpio pins_;
};

} // namespace zol_test
