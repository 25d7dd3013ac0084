// The listener's poll set. Part of the listener.
#pragma once

#include <poll.h>

#include <cstddef>
#include <memory>

#include "common/immortal.h"
#include "gpio.h"

namespace kiv::gpio
{

struct poll_set {
    std::unique_ptr<pollfd[]> fds;       // entry 0 is the command pipe
    std::unique_ptr<gpio_item *[]> pins; // the owners of the "irq" nodes
    std::size_t capacity = 0;
    std::size_t count = 0;
};

extern immortal<poll_set> g_poll_fds; // the listener's while it runs

/// Makes a set with the command pipe, and with room for all pins that have a callback.
/// @return False after a line in the log.
bool init_poll_set(call_site site);

/// Releases the set, while no listener runs.
void discard_poll_set();

/// Leaves a pin out of the set for a while.
void rest(gpio_item &item, pollfd &entry);

/// Puts the pins back whose rest is over. @return The longest time that poll() may wait, in ms.
int end_rests() KIV_REQUIRES(g_gpio_db.lock);

/// The rest of a pin, and the pause after a failure of poll().
constexpr auto retry_ms = std::chrono::milliseconds(100);

} // namespace kiv::gpio

/// Rebuilds the poll set from the table. Registration has made room, so this cannot fail.
void __listener_prepare_events() KIV_REQUIRES(g_gpio_db.lock);
