// One pin of the board: its level, and the interrupts that it counts for whoever asked for them.
#pragma once

#include <cstdint>

namespace kivboard
{

/// What happened to an interrupt of the pin.
enum class interrupt_outcome { counted, not_requested, masked };

/// As after a reset: nobody has requested the interrupt, it is masked, and level-triggered.
class gpio_pin
{
public:
    enum class trigger : std::uint32_t { level = 1, edge = 2 };

    /// Enough for any use, and still a number to readers with 32-bit integers. A counter that has got there
    /// stays there.
    static constexpr std::uint32_t highest_count = 0x7fffffff;

    explicit gpio_pin(bool level) : level_(level) {}

    /// The application's side. Driving a pin is no interrupt.
    [[nodiscard]] bool level() const { return level_; }
    void drive(bool level) { level_ = level; }

    [[nodiscard]] bool is_requested() const { return requested_; }
    /// Releasing forgets what was counted: it was for whoever had requested it.
    void request(bool on);

    [[nodiscard]] bool is_masked() const { return masked_; }
    /// Masking keeps what was counted before.
    void mask(bool on) { masked_ = on; }

    [[nodiscard]] trigger kind() const { return kind_; }
    void configure(trigger kind) { kind_ = kind; }

    /// Interrupts since they were last taken.
    [[nodiscard]] std::uint32_t pending() const { return pending_; }
    std::uint32_t take();

    /// The bench: pulses, an interrupt each, whatever the kind.
    interrupt_outcome raise(std::uint32_t pulses);

    /// The bench: the level at the input. @return Whether it is such as to interrupt: an edge-triggered pin
    /// does so at every change, a level-triggered one whenever it is set to 1.
    bool set_input(bool level);

private:
    bool level_;
    bool requested_ = false;
    bool masked_ = true;
    trigger kind_ = trigger::level;
    std::uint32_t pending_ = 0;
};

} // namespace kivboard
