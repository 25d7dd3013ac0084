// One pin of the board: its level, and the interrupts that it counts once they are requested.
#pragma once

#include <cstdint>

namespace kivboard
{

enum class interrupt_outcome { counted, not_requested, masked };

/// Starts as after a reset: the interrupt is not requested, masked, and level-triggered.
class gpio_pin
{
public:
    enum class trigger : std::uint32_t { level = 1, edge = 2 };

    /// The counter saturates here: readers with signed 32-bit integers still understand it.
    static constexpr std::uint32_t highest_count = 0x7fffffff;

    explicit gpio_pin(bool level) : level_(level) {}

    /// The application drives the pin. This does not interrupt.
    [[nodiscard]] bool level() const { return level_; }
    void drive(bool level) { level_ = level; }

    [[nodiscard]] bool is_requested() const { return requested_; }
    /// Releasing clears the count, which was for the previous requester.
    void request(bool on);

    [[nodiscard]] bool is_masked() const { return masked_; }
    /// Masking keeps the count.
    void mask(bool on) { masked_ = on; }

    [[nodiscard]] trigger kind() const { return kind_; }
    void configure(trigger kind) { kind_ = kind; }

    /// The count of interrupts since take() was last called.
    [[nodiscard]] std::uint32_t pending() const { return pending_; }
    std::uint32_t take();

    /// The bench: one interrupt for each pulse, with either trigger.
    interrupt_outcome raise(std::uint32_t pulses);

    /// The bench sets the level at the input. @return True for an interrupt: an edge-triggered pin
    /// interrupts at every change, a level-triggered one each time it is set to 1.
    bool set_input(bool level);

private:
    bool level_;
    bool requested_ = false;
    bool masked_ = true;
    trigger kind_ = trigger::level;
    std::uint32_t pending_ = 0;
};

} // namespace kivboard
