// The GPIO module used by many threads at once, interrupts raining.

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/tsan.h"
#include "common/unique_fd.h"
#include "support/gpio_test.h"

using zol_test::calls;
using zol_test::log_capture;

namespace
{

#if defined(KIV_TSAN)
constexpr int cycles = 1000;
#else
constexpr int cycles = 10'000;
#endif

// Does something again and again on a thread of its own until it is destroyed.
class busy
{
public:
    explicit busy(std::function<void(int round)> work)
        : thread_([this, work = std::move(work)] {
              for (int round = 0; !is_over_; ++round) {
                  work(round);
              }
          })
    {
    }
    ~busy()
    {
        is_over_ = true;
        thread_.join();
    }
    busy(const busy &) = delete;
    busy &operator=(const busy &) = delete;

private:
    std::atomic<bool> is_over_{false};
    std::thread thread_;
};

class GpioThreads : public zol_test::GpioTest
{
};

TEST_F(GpioThreads, NoInterruptOfTheOthersIsLostAndNoneComesAfterTheEnd)
{
    constexpr int others = 8;
    std::array<calls, others> calls;
    std::array<long, others> raised = {};
    zol_test::calls of_17;
    for (int pin = 0; pin < others; ++pin) {
        request(pin);
        ASSERT_EQ(watch(pin, calls[static_cast<std::size_t>(pin)]), KIV_OK);
    }
    request(17);
    ASSERT_EQ(watch(17, of_17), KIV_OK);
    ASSERT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
    log_capture log;
    const long descriptors = open_descriptors();
    {
        const busy rain([&](int round) {
            const auto pin = static_cast<std::size_t>(round % others);
            pins_.raise(static_cast<int>(pin), static_cast<std::uint64_t>(1 + round % 3));
            raised[pin] += 1 + round % 3;
            pins_.raise(17);
            std::this_thread::yield(); // or the listener finds no time for anything else
        });
        for (int i = 0; i < cycles; ++i) {
            ASSERT_EQ(watch(17, of_17), KIV_OK);
            ASSERT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
            const long at_the_end = of_17.count;
            kiv_gpio_direction_in(17); // after a pass at the latest that was under way
            ASSERT_EQ(of_17.count, at_the_end);
        }
    }
    for (std::size_t pin = 0; pin < others; ++pin) {
        EXPECT_TRUE(calls[pin].become(raised[pin])) << pin;
    }
    EXPECT_GT(of_17.count, 0);
    EXPECT_EQ(log.out(), "");
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(GpioThreads, NothingHangsWhateverMeetsWhatever)
{
    static calls calls;
    const long descriptors = open_descriptors();
    constexpr int rounds = cycles / 2;
    std::atomic<int> unexpected{0};
    const auto check = [&unexpected](int32_t status) {
        if (status != KIV_OK && status != KIV_ERR_INVALID_PARAM && status != KIV_ERR_STATE) {
            ++unexpected;
        }
    };
    {
        log_capture log;
        std::vector<std::thread> threads;
        const auto repeat = [&](auto work) {
            threads.emplace_back([work] {
                for (int round = 0; round < rounds; ++round) {
                    work(round % 4);
                }
            });
        };
        const busy rain([&](int round) {
            pins_.raise(round % 4);
            std::this_thread::yield();
        });
        repeat([&](int) {
            check(kiv_gpio_deinit());
            check(kiv_gpio_init());
        });
        repeat([&](int pin) {
            check(kiv_gpio_init());
            check(kiv_gpio_free(pin));
        });
        for (int twice = 0; twice < 2; ++twice) {
            repeat([&](int pin) {
                check(kiv_gpio_request(pin, "pin"));
                while (kiv_gpio_free(pin) == KIV_ERR_STATE) { // or there would be ever more
                    std::this_thread::yield();
                }
            });
            repeat([&](int pin) { check(kiv_gpio_free(pin)); });
            repeat([&](int pin) { check(watch(pin, calls)); });
            repeat([&](int pin) { check(kiv_gpio_unregister_callback(pin)); });
            repeat([&](int pin) {
                int value = 0;
                check(kiv_gpio_set(pin, 1));
                check(kiv_gpio_get(pin, &value));
                check(kiv_gpio_set_simulator_mode(pin % 2));
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(unexpected, 0);
    kiv_gpio_set_simulator_mode(0);
    {
        log_capture log;
        kiv_gpio_init();
        for (int pin = 0; pin < 4; ++pin) {
            while (kiv_gpio_free(pin) == KIV_OK) {
            }
        }
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    calls.count = 0;
    request(17);
    ASSERT_EQ(watch(17, calls), KIV_OK);
    pins_.raise(17);
    EXPECT_TRUE(calls.become(1)) << "and it works as ever";
}

TEST_F(GpioThreads, DescriptorsOfOthersAreLeftAlone)
{
    static calls calls;
    std::atomic<int> stolen{0};
    std::atomic<int> looked_at{0};
    request(5);
    ASSERT_EQ(watch(5, calls), KIV_OK);
    log_capture log; // a descriptor that is no node would be reported
    {
        // What the pins' descriptors become as soon as they are closed: readable, and somebody else's.
        const auto reuse = [&](int) {
            std::array<kiv::unique_fd, 6> own;
            for (kiv::unique_fd &fd : own) {
                fd.reset(eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC));
            }
            std::this_thread::yield();
            for (const kiv::unique_fd &fd : own) {
                eventfd_t value = 0;
                stolen += eventfd_read(fd.get(), &value) != 0 || value != 1 ? 1 : 0;
                ++looked_at;
            }
        };
        const busy one(reuse);
        const busy two(reuse);
        const busy rain([&](int) {
            pins_.raise(5); // keeps the listener going
            std::this_thread::yield();
        });
        for (int i = 0; i < cycles / 10; ++i) {
            for (int pin = 20; pin < 24; ++pin) {
                ASSERT_EQ(kiv_gpio_request(pin, "pin"), KIV_OK);
                ASSERT_EQ(watch(pin, calls), KIV_OK);
            }
            for (int pin = 20; pin < 24; ++pin) {
                pins_.raise(pin); // something to read until the end
                ASSERT_EQ(kiv_gpio_free(pin), KIV_OK);
            }
        }
    }
    EXPECT_EQ(stolen, 0);
    EXPECT_GT(looked_at, 100);
    EXPECT_EQ(log.out(), "");
}

TEST_F(GpioThreads, ManyPinsAreWatched)
{
    constexpr int count = 300;
    static std::array<calls, count> calls;
    log_capture log;
    for (int pin = 0; pin < count; ++pin) {
        request(pin);
        ASSERT_EQ(watch(pin, calls[static_cast<std::size_t>(pin)]), KIV_OK);
    }
    for (int pin = 0; pin < count; ++pin) {
        pins_.raise(pin, static_cast<std::uint64_t>(pin + 1));
    }
    for (int pin = 0; pin < count; ++pin) {
        const auto at = static_cast<std::size_t>(pin);
        EXPECT_TRUE(calls[at].become(pin + 1));
        EXPECT_EQ(calls[at].last_gpio, pin);
    }
    for (int pin = 0; pin < count; pin += 2) { // the rest goes on
        ASSERT_EQ(pin % 4 == 0 ? kiv_gpio_free(pin) : kiv_gpio_unregister_callback(pin), KIV_OK);
    }
    for (int pin = count - 1; pin >= 0; --pin) {
        pins_.raise(pin);
    }
    for (int pin = 0; pin < count; ++pin) {
        EXPECT_TRUE(calls[static_cast<std::size_t>(pin)].become(pin + 1 + pin % 2)) << pin;
    }
    EXPECT_EQ(log.texts("ERRR"), std::vector<std::string>{});
}

} // namespace
