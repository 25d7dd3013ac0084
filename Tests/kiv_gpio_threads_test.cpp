// The GPIO module used by many threads at once, interrupts raining.

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <array>
#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <thread>

#include "common/unique_fd.h"
#include "support/gpio_test.h"

using zol_test::watch;

namespace
{

using GpioThreads = zol_test::GpioTest;

// On a busy machine each cycle waits for several threads to get a turn, so fewer cycles are enough there. Their number is
// even, because two kinds of cycles take turns.
class cycle_limit
{
public:
    [[nodiscard]] bool go_on(int done) const
    {
        return done < 500 || done % 2 != 0 || (done < 10'000 && std::chrono::steady_clock::now() < end_);
    }

private:
    const std::chrono::steady_clock::time_point end_ =
        std::chrono::steady_clock::now() + std::chrono::seconds(4);
};

// Works again and again on a thread of its own, until the thread is destroyed.
std::jthread keep(std::function<void(int round)> work)
{
    return std::jthread([work = std::move(work)](const std::stop_token &end) {
        for (int round = 0; !end.stop_requested(); ++round) {
            work(round);
            std::this_thread::yield(); // the listener is to find time for something else, too
        }
    });
}

TEST_F(GpioThreads, LosesNoInterruptAndTouchesNothingOfOthers)
{
    constexpr int pins = 60; // their descriptors fit into the 1024 that an ordinary user has
    constexpr int late = 60; // comes and goes
    std::map<int, zol_test::calls> calls;
    std::map<int, long> raised;
    for (int pin = 0; pin <= late; ++pin) {
        request_and_watch(pin, calls[pin]);
    }
    ASSERT_EQ(kiv_gpio_unregister_callback(late), KIV_OK);
    const std::atomic<long> &of_late = calls[late].count;
    std::atomic<int> stolen{0};
    zol_test::log_capture log; // of the nodes that fail
    const long descriptors = open_descriptors();
    {
        const std::jthread rain = keep([&](int round) {
            const int count = 1 + round % 3;
            pins_.raise(round % pins, static_cast<std::uint64_t>(count));
            raised[round % pins] += count;
            pins_.raise(late);
        });
        // Descriptors of a pin that are closed are at once somebody else's, and readable.
        const std::jthread others = keep([&](int) {
            std::array<kiv::unique_fd, 6> own;
            for (kiv::unique_fd &fd : own) {
                fd.reset(eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC));
            }
            std::this_thread::yield();
            for (const kiv::unique_fd &fd : own) {
                eventfd_t value = 0;
                stolen += eventfd_read(fd.get(), &value) != 0 || value != 1 ? 1 : 0;
            }
        });
        const cycle_limit limit;
        for (int i = 0; limit.go_on(i); ++i) {
            pins_.node(i % pins, "irq").failing = zol_test::on_nothing;
            pins_.node((i + 20) % pins, "irq").failing = zol_test::on_read;
            if (i % 100 == 0) {
                ASSERT_EQ(kiv_gpio_deinit(), KIV_OK);
                ASSERT_EQ(kiv_gpio_init(), KIV_OK);
            }
            ASSERT_EQ(watch(late, calls[late]), KIV_OK);
            ASSERT_EQ(i % 2 == 0 ? kiv_gpio_free(late) : kiv_gpio_unregister_callback(late), KIV_OK);
            const long at_the_end = of_late;
            ASSERT_EQ(i % 2 == 0 ? kiv_gpio_request(late, "late") : KIV_OK, KIV_OK);
            kiv_gpio_direction_in(late); // after a pass at the latest that was under way
            ASSERT_EQ(of_late, at_the_end);
        }
    }
    for (const auto &[pin, count] : raised) {
        pins_.node(pin, "irq").failing = zol_test::on_nothing;
        EXPECT_TRUE(calls[pin].become(count)) << pin;
        EXPECT_EQ(calls[pin].last_gpio, pin);
    }
    EXPECT_GT(of_late, 0);
    EXPECT_EQ(stolen, 0);
    EXPECT_EQ(open_descriptors(), descriptors);
    for (const std::string &text : log.texts("ERRR")) {
        EXPECT_TRUE(text.starts_with("failed reading from fd=")) << text;
    }
    for (int pin = 0; pin < pins; pin += 2) { // the rest goes on
        ASSERT_EQ(pin % 4 == 0 ? kiv_gpio_free(pin) : kiv_gpio_unregister_callback(pin), KIV_OK);
    }
    for (int pin = pins - 1; pin >= 0; --pin) {
        pins_.raise(pin);
        EXPECT_TRUE(calls[pin].become(raised[pin] + pin % 2)) << pin;
    }
}

TEST_F(GpioThreads, NothingHangs)
{
    static zol_test::calls calls;
    const long descriptors = open_descriptors();
    const std::function<int32_t(int pin)> works[] = {
        [](int) { return kiv_gpio_deinit(), kiv_gpio_init(); },
        [](int pin) {
            int32_t status = kiv_gpio_request(pin, "pin");
            while (status == KIV_OK && kiv_gpio_free(pin) == KIV_ERR_STATE) { // or there would be ever more
                std::this_thread::yield();
            }
            return status;
        },
        kiv_gpio_free,
        [](int pin) { return watch(pin, calls); },
        kiv_gpio_unregister_callback,
        [](int pin) { return kiv_gpio_set(pin, kiv_gpio_set_simulator_mode(pin % 2)); }};
    std::atomic<int> unexpected{0};
    {
        zol_test::log_capture log;
        const std::jthread rain = keep([&](int round) { pins_.raise(round % 4); });
        std::list<std::jthread> threads;
        for (int i = 0; i < 12; ++i) {
            threads.emplace_back([&, &work = works[i % 6]] {
                const cycle_limit limit;
                for (int round = 0; limit.go_on(2 * round); ++round) {
                    const int32_t status = work(round % 4);
                    unexpected +=
                        status != KIV_OK && status != KIV_ERR_INVALID_PARAM && status != KIV_ERR_STATE;
                }
            });
        }
        threads.clear(); // joins them
        kiv_gpio_set_simulator_mode(0);
        kiv_gpio_init();
        for (int pin = 0; pin < 4; ++pin) {
            while (kiv_gpio_free(pin) == KIV_OK) {
            }
        }
    }
    EXPECT_EQ(unexpected, 0);
    EXPECT_EQ(open_descriptors(), descriptors);
    calls.count = 0;
    request_and_watch(17, calls);
    pins_.raise(17);
    EXPECT_TRUE(calls.become(1)) << "and it works as ever";
}

} // namespace
