// Pins of the virtual board, their files and what the bench asks of them; without a mount.

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "gpio_bank.h"

using kivboard::gpio_attribute;
using kivboard::gpio_pin;
using kivboard::interrupt_outcome;

namespace
{

TEST(BoardPin, CountsWhileRequestedAndUnmasked)
{
    gpio_pin pin(false);
    pin.mask(false);
    EXPECT_EQ(pin.raise(1), interrupt_outcome::not_requested);
    pin.request(true);
    EXPECT_EQ(pin.take(), 0U) << "what came before the request is gone";
    EXPECT_EQ(pin.raise(2), interrupt_outcome::counted);
    pin.mask(true);
    EXPECT_EQ(pin.raise(4), interrupt_outcome::masked);
    pin.request(true);
    EXPECT_EQ(pin.take(), 2U) << "masking and another request keep what was counted";
    EXPECT_EQ(pin.take(), 0U);
    pin.mask(false);
    pin.raise(gpio_pin::highest_count - 1);
    for (const std::uint32_t more : {1U, 1U, gpio_pin::highest_count, 0xffffffffU}) {
        EXPECT_EQ(pin.raise(more), interrupt_outcome::counted);
        EXPECT_EQ(pin.pending(), gpio_pin::highest_count);
    }
    pin.request(false);
    pin.request(true);
    EXPECT_EQ(pin.take(), 0U) << "releasing forgets it";
}

TEST(BoardPin, InputInterruptsByKind)
{
    gpio_pin pin(true);
    EXPECT_TRUE(pin.set_input(true)) << "level-triggered: active";
    EXPECT_FALSE(pin.set_input(false));
    EXPECT_TRUE(pin.set_input(true));
    pin.configure(gpio_pin::trigger::edge);
    EXPECT_FALSE(pin.set_input(true)) << "edge-triggered: no change";
    EXPECT_TRUE(pin.set_input(false));
    pin.drive(true);
    EXPECT_TRUE(pin.set_input(false)) << "a change from what the application drove";
}

TEST(BoardPinFile, TextsAreNumbersThatMayBePadded)
{
    using namespace std::string_view_literals;
    gpio_pin pin(false);
    kivboard::journal journal;
    const struct {
        gpio_attribute attribute;
        std::string_view written;
        bool good;
        const char *read;
    } cases[] = {
        {gpio_attribute::irqmask, ""sv, false, "1\n"},
        {gpio_attribute::irqmask, "0\0junk"sv, false, "1\n"},
        {gpio_attribute::irqmask, "0"sv, true, "0\n"},
        {gpio_attribute::level, "1\0"sv, true, "1\n"},
        {gpio_attribute::level, "2"sv, false, "1\n"},
        {gpio_attribute::level, "0\n"sv, true, "0\n"},
        {gpio_attribute::irqrequest, " 1"sv, false, "0\n"},
        {gpio_attribute::irqrequest, "1 "sv, false, "0\n"},
        {gpio_attribute::irqrequest, "0x1"sv, false, "0\n"},
        {gpio_attribute::irqrequest, "1\n\0"sv, true, "1\n"},
        {gpio_attribute::irqconfig, "0"sv, false, "1\n"},
        {gpio_attribute::irqconfig, "4294967298"sv, false, "1\n"},
        {gpio_attribute::irqconfig, "2\0\0\0\0\0\0\0"sv, true, "2\n"},
    };
    for (const auto &[attribute, written, good, expected] : cases) {
        kivboard::gpio_node node("gpio_9", pin, attribute, journal);
        EXPECT_EQ(node.write(written), good ? static_cast<int>(written.size()) : -EINVAL) << written;
        std::string text;
        EXPECT_EQ(node.read(text), 0);
        EXPECT_EQ(text, expected) << written;
    }
    EXPECT_LT(kivboard::gpio_node("gpio_9", pin, gpio_attribute::irq, journal).write("1"), 0);
    EXPECT_TRUE(journal.from(1).starts_with("1 gpio_9 irqmask W[] errno 22\n"
                                            "2 gpio_9 irqmask W[0.junk] errno 22\n"
                                            "3 gpio_9 irqmask W[0] ok\n"));
    EXPECT_EQ(journal.next_number(), std::size(cases) + 2) << "a line per write, and reads are none";
}

TEST(BoardPins, RequestsOfTheBench)
{
    kivboard::board_fs files;
    kivboard::journal journal;
    kivboard::gpio_bank pins({{5, true, {}}, {70'000, false, {}}}, files, journal);
    const auto ask = [](const kivboard::control_reply &reply) { return (reply.ok ? "+" : "-") + reply.text; };
    EXPECT_EQ(ask(pins.level({"level", "0x11170", "1"})), "+");
    EXPECT_EQ(ask(pins.level({"level", "70000"})), "+1\n");
    EXPECT_EQ(ask(pins.level({"level", "5", "2"})), "-2 is no level; a level is 0 or 1\n");
    EXPECT_EQ(ask(pins.raise({"raise", "5", "3"})), "+dropped, not requested\n");
    for (const std::string number : {"6", "-5", "5x", "4294967301"}) {
        EXPECT_EQ(ask(pins.raise({"raise", number})), "-there is no pin " + number + "\n");
    }
    for (const std::string count : {"0", "2147483648", "many"}) {
        EXPECT_EQ(ask(pins.raise({"raise", "5", count})),
                  "-" + count + " is no count; a count is 1 to 2147483647\n");
    }
    EXPECT_EQ(ask(pins.fail({"fail", "5", "irqs", "open"})),
              "-irqs is no node; a node is level, irq, irqmask, irqrequest or irqconfig\n");
    EXPECT_EQ(ask(pins.fail({"fail", "5", "irq", "seek"})),
              "-seek is no operation; an operation is open, read, write or poll\n");
    EXPECT_EQ(ask(pins.mend({"mend", "5", "irq"})), "+");
    EXPECT_EQ(journal.from(1), "1 gpio_70000 level 1: dropped, not requested\n"
                               "2 gpio_5 raise 3: dropped, not requested\n3 gpio_5 mend irq\n");
}

} // namespace
