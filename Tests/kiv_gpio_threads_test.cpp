// The GPIO module used by many threads at once, interrupts raining.

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <array>
#include <functional>
#include <list>
#include <map>
#include <thread>

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

// Does something again and again on a thread of its own: so many times, or until it is destroyed.
class busy
{
public:
    static constexpr int forever = -1;

    busy(int rounds, std::function<void(int round)> work)
        : thread_([this, rounds, work = std::move(work)] {
              for (int round = 0; rounds == forever ? !is_over_ : round < rounds; ++round) {
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
protected:
    // The listener is to find time for something else, too.
    void raise(int pin)
    {
        pins_.raise(pin);
        std::this_thread::yield();
    }
};

TEST_F(GpioThreads, NoInterruptOfTheOthersIsLostAndNoneComesAfterTheEnd)
{
    constexpr int others = 100;
    constexpr int late = others; // comes and goes
    std::map<int, calls> calls;
    std::map<int, long> raised;
    for (int pin = 0; pin < others; ++pin) {
        request_and_watch(pin, calls[pin]);
    }
    zol_test::calls &of_late = calls[late];
    request_and_watch(late, of_late);
    ASSERT_EQ(kiv_gpio_unregister_callback(late), KIV_OK);
    log_capture log;
    const long descriptors = open_descriptors();
    {
        const busy rain(busy::forever, [&](int round) {
            const int count = 1 + round % 3;
            pins_.raise(round % others, static_cast<std::uint64_t>(count));
            raised[round % others] += count;
            raise(late);
        });
        for (int i = 0; i < cycles; ++i) {
            ASSERT_EQ(watch(late, of_late), KIV_OK);
            ASSERT_EQ(kiv_gpio_unregister_callback(late), KIV_OK);
            const long at_the_end = of_late.count;
            kiv_gpio_direction_in(late); // after a pass at the latest that was under way
            ASSERT_EQ(of_late.count, at_the_end);
        }
    }
    for (const auto &[pin, count] : raised) {
        EXPECT_TRUE(calls[pin].become(count)) << pin;
        EXPECT_EQ(calls[pin].last_gpio, pin);
    }
    EXPECT_GT(of_late.count, 0);
    EXPECT_EQ(open_descriptors(), descriptors);
    for (int pin = 0; pin < others; pin += 2) { // the rest goes on
        ASSERT_EQ(pin % 4 == 0 ? kiv_gpio_free(pin) : kiv_gpio_unregister_callback(pin), KIV_OK);
    }
    for (int pin = others - 1; pin >= 0; --pin) {
        pins_.raise(pin);
        EXPECT_TRUE(calls[pin].become(raised[pin] + pin % 2)) << pin;
    }
    EXPECT_EQ(log.out(), "");
}

TEST_F(GpioThreads, NothingHangsWhateverMeetsWhatever)
{
    static calls calls;
    const long descriptors = open_descriptors();
    std::atomic<int> unexpected{0};
    const auto check = [&unexpected](int32_t status) {
        const bool is_expected =
            status == KIV_OK || status == KIV_ERR_INVALID_PARAM || status == KIV_ERR_STATE;
        unexpected += is_expected ? 0 : 1;
    };
    const std::function<void(int pin)> works[] = {[&](int) {
                                                      check(kiv_gpio_deinit());
                                                      check(kiv_gpio_init());
                                                  },
                                                  [&](int pin) {
                                                      check(kiv_gpio_request(pin, "pin"));
                                                      while (kiv_gpio_free(pin) ==
                                                             KIV_ERR_STATE) { // or there would be ever more
                                                          std::this_thread::yield();
                                                      }
                                                  },
                                                  [&](int pin) { check(kiv_gpio_free(pin)); },
                                                  [&](int pin) { check(watch(pin, calls)); },
                                                  [&](int pin) { check(kiv_gpio_unregister_callback(pin)); },
                                                  [&](int pin) {
                                                      int value = 0;
                                                      check(kiv_gpio_set(pin, 1));
                                                      check(kiv_gpio_get(pin, &value));
                                                      check(kiv_gpio_set_simulator_mode(pin % 2));
                                                  }};
    {
        log_capture log;
        const busy rain(busy::forever, [&](int round) { raise(round % 4); });
        std::list<busy> threads;
        for (const auto &work : works) {
            for (int twice = 0; twice < 2; ++twice) {
                threads.emplace_back(cycles / 2, [&work](int round) { work(round % 4); });
            }
        }
        threads.clear(); // once all are done
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

TEST_F(GpioThreads, DescriptorsOfOthersAreLeftAlone)
{
    static calls calls;
    std::atomic<int> stolen{0};
    std::atomic<int> looked_at{0};
    request_and_watch(5, calls);
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
        const busy one(busy::forever, reuse);
        const busy two(busy::forever, reuse);
        const busy rain(busy::forever, [&](int) { raise(5); }); // keeps the listener going
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

} // namespace
