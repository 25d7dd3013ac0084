#include "gpio_pin.h"

#include <algorithm>
#include <utility>

namespace kivboard
{

void gpio_pin::request(bool on)
{
    requested_ = on;
    if (!on) {
        pending_ = 0;
    }
}

std::uint32_t gpio_pin::take()
{
    return std::exchange(pending_, 0);
}

interrupt_outcome gpio_pin::raise(std::uint32_t pulses)
{
    if (!requested_) {
        return interrupt_outcome::not_requested;
    }
    if (masked_) {
        return interrupt_outcome::masked;
    }
    pending_ += std::min(pulses, highest_count - pending_);
    return interrupt_outcome::counted;
}

bool gpio_pin::set_input(bool level)
{
    const bool changed = level_ != level;
    level_ = level;
    return kind_ == trigger::edge ? changed : level;
}

} // namespace kivboard
