// Pins of the virtual board, their files and what the bench asks of them; without a mount.

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "gpio_bank.h"

using kivboard::gpio_attribute;
using kivboard::gpio_operation;
using kivboard::gpio_pin;
using kivboard::interrupt_outcome;

namespace
{

TEST(BoardPin, CountsWhileRequestedAndUnmasked)
{
    gpio_pin pin(false);
    EXPECT_EQ(pin.raise(1), interrupt_outcome::not_requested);
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
    pin.raise(1);
    pin.request(false);
    pin.request(true);
    EXPECT_EQ(pin.take(), 0U) << "releasing forgets it";
}

TEST(BoardPin, CountSaturates)
{
    gpio_pin pin(false);
    pin.request(true);
    pin.mask(false);
    pin.raise(gpio_pin::highest_count - 1);
    for (const std::uint32_t more : {1U, 1U, gpio_pin::highest_count, 0xffffffffU}) {
        EXPECT_EQ(pin.raise(more), interrupt_outcome::counted);
        EXPECT_EQ(pin.pending(), gpio_pin::highest_count);
    }
    EXPECT_EQ(pin.take(), gpio_pin::highest_count);
    pin.raise(1);
    EXPECT_EQ(pin.take(), 1U);
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
    EXPECT_FALSE(pin.level());
}

class BoardPinFile : public testing::Test
{
protected:
    kivboard::gpio_node &file(gpio_attribute attribute)
    {
        files_.push_back(std::make_unique<kivboard::gpio_node>("gpio_9", pin_, attribute, journal_));
        return *files_.back();
    }

    static std::string read(kivboard::board_file &file)
    {
        std::string text;
        const int result = file.read(text);
        return result == 0 ? text : std::to_string(result);
    }

    gpio_pin pin_{false};
    kivboard::journal journal_;
    std::vector<std::unique_ptr<kivboard::gpio_node>> files_;
};

TEST_F(BoardPinFile, TextsAreNumbersThatMayBePadded)
{
    using namespace std::string_view_literals;
    const struct {
        gpio_attribute attribute;
        std::string_view written;
        bool good;
        const char *read;
    } cases[] = {
        {gpio_attribute::level, "1\0"sv, true, "1\n"},
        {gpio_attribute::level, "2"sv, false, "1\n"},
        {gpio_attribute::level, "0\n"sv, true, "0\n"},
        {gpio_attribute::irqmask, ""sv, false, "1\n"},
        {gpio_attribute::irqmask, "0\0junk"sv, false, "1\n"},
        {gpio_attribute::irqmask, "0"sv, true, "0\n"},
        {gpio_attribute::irqrequest, " 1"sv, false, "0\n"},
        {gpio_attribute::irqrequest, "1 "sv, false, "0\n"},
        {gpio_attribute::irqrequest, "0x1"sv, false, "0\n"},
        {gpio_attribute::irqrequest, "\0\0"sv, false, "0\n"},
        {gpio_attribute::irqrequest, "1\n\0"sv, true, "1\n"},
        {gpio_attribute::irqconfig, "0"sv, false, "1\n"},
        {gpio_attribute::irqconfig, "3"sv, false, "1\n"},
        {gpio_attribute::irqconfig, "4294967298"sv, false, "1\n"},
        {gpio_attribute::irqconfig, "-1"sv, false, "1\n"},
        {gpio_attribute::irqconfig, "2\0\0\0\0\0\0\0"sv, true, "2\n"},
    };
    for (const auto &[attribute, written, good, expected] : cases) {
        kivboard::gpio_node &node = file(attribute);
        EXPECT_EQ(node.write(written), good ? static_cast<int>(written.size()) : -EINVAL) << written;
        EXPECT_EQ(read(node), expected) << written;
    }
    EXPECT_LT(file(gpio_attribute::irq).write("1"), 0);
    EXPECT_EQ(journal_.from(4), "4 gpio_9 irqmask W[] errno 22\n5 gpio_9 irqmask W[0.junk] errno 22\n"
                                "6 gpio_9 irqmask W[0] ok\n" +
                                    journal_.from(7));
    EXPECT_EQ(journal_.next_number(), std::size(cases) + 2) << "a line per write, and reads are none";
}

TEST_F(BoardPinFile, InterruptsAreTakenByReading)
{
    kivboard::gpio_node &irq = file(gpio_attribute::irq);
    pin_.request(true);
    pin_.mask(false);
    EXPECT_EQ(irq.poll(), 0U);
    EXPECT_EQ(read(irq), "0\n");
    pin_.raise(12);
    EXPECT_EQ(irq.poll(), unsigned{POLLPRI});
    irq.set_failing(gpio_operation::read, true);
    EXPECT_EQ(read(irq), std::to_string(-EIO));
    irq.set_failing(gpio_operation::poll, true);
    EXPECT_EQ(irq.poll(), unsigned{POLLERR});
    irq.set_failing(gpio_operation::read, false);
    EXPECT_EQ(irq.poll(), unsigned{POLLERR}) << "only reading was mended";
    EXPECT_EQ(read(irq), "12\n") << "a read that failed took nothing";
    irq.set_failing(gpio_operation::poll, false);
    EXPECT_EQ(irq.poll(), 0U);
    EXPECT_EQ(journal_.from(1), "1 gpio_9 irq R[12] ok\n");

    kivboard::gpio_node &level = file(gpio_attribute::level);
    level.set_failing(gpio_operation::write, true);
    EXPECT_EQ(level.write("1"), -EIO);
    EXPECT_FALSE(pin_.level());
    level.set_failing(gpio_operation::open, true);
    EXPECT_EQ(level.open(), -EIO);
}

TEST(BoardPins, RequestsOfTheBench)
{
    kivboard::board_fs files;
    kivboard::journal journal;
    kivboard::gpio_bank pins({{5, true, {}}, {70'000, false, {}}}, files, journal);
    const auto ask = [](const kivboard::control_reply &reply) { return (reply.ok ? "+" : "-") + reply.text; };
    EXPECT_EQ(ask(pins.level({"level", "5"})), "+1\n");
    EXPECT_EQ(ask(pins.level({"level", "0x11170", "1"})), "+");
    EXPECT_EQ(ask(pins.level({"level", "70000"})), "+1\n");
    EXPECT_EQ(ask(pins.level({"level", "5", "2"})), "-2 is no level; a level is 0 or 1\n");
    EXPECT_EQ(ask(pins.raise({"raise", "5", "3"})), "+dropped, not requested\n");
    for (const char *const number : {"6", "-5", "5x", "4294967301"}) {
        EXPECT_EQ(ask(pins.raise({"raise", number})), "-there is no pin " + std::string(number) + "\n");
    }
    for (const char *const count : {"0", "2147483648", "many"}) {
        EXPECT_EQ(ask(pins.raise({"raise", "5", count})),
                  "-" + std::string(count) + " is no count; a count is 1 to 2147483647\n");
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
