// A pin of the virtual board, without a mount.

#include <gtest/gtest.h>

#include "gpio_pin.h"

using kivboard::gpio_pin;
using kivboard::interrupt_outcome;

namespace
{

TEST(BoardPin, CountsInterrupts)
{
    gpio_pin pin(true);
    pin.mask(false);
    EXPECT_EQ(pin.raise(1), interrupt_outcome::not_requested);
    pin.request(true);
    EXPECT_EQ(pin.take(), 0U) << "earlier interrupts are not counted";
    EXPECT_EQ(pin.raise(2), interrupt_outcome::counted);
    pin.mask(true);
    EXPECT_EQ(pin.raise(4), interrupt_outcome::masked);
    pin.request(true);
    EXPECT_EQ(pin.take(), 2U) << "masking and a second request keep the count";
    EXPECT_EQ(pin.take(), 0U);
    pin.mask(false);
    for (const std::uint32_t more : {gpio_pin::highest_count - 1, 1U, 1U, 0xffffffffU}) {
        EXPECT_EQ(pin.raise(more), interrupt_outcome::counted);
    }
    EXPECT_EQ(pin.pending(), gpio_pin::highest_count) << "the count saturates";
    pin.request(false);
    EXPECT_EQ(pin.take(), 0U) << "releasing clears the count";

    EXPECT_TRUE(pin.set_input(true)) << "level-triggered: active";
    EXPECT_FALSE(pin.set_input(false));
    EXPECT_TRUE(pin.set_input(true));
    pin.configure(gpio_pin::trigger::edge);
    EXPECT_FALSE(pin.set_input(true)) << "edge-triggered: no change";
    EXPECT_TRUE(pin.set_input(false));
    pin.drive(true);
    EXPECT_TRUE(pin.set_input(false)) << "a change of the driven level";
}

} // namespace
