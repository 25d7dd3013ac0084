// Declarations that the sources of this module share: the pins, their nodes, and the listener.
#pragma once

#include <glib.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/mutex.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_gpio.h"

struct gpio_item;

namespace kiv::gpio
{

// The nodes of a pin by the type of their descriptors. "level" is open twice: to set it and to get it.
enum fd_type { set_level, get_level, irq, irqmask, irqrequest, irqconfig, fd_types };

// The cause of an interrupt, as it is given at registration.
struct interrupt_cause {
    int level_edge;
    int edge_cfg;
};

// The operations of a pin: of the board's tree, in simulator mode, or of a GPIO chip's line. A pin keeps the
// kind that it was opened with.
struct pin_kind {
    /// Each returns KIV_OK, or the status after a line in the log.
    int32_t (*open)(call_site site, gpio_item &item);
    int32_t (*enable_interrupt)(call_site site, gpio_item &item, interrupt_cause cause);

    void (*disable_interrupt)(gpio_item &item);
    void (*set_level)(gpio_item &item, int value);
    int (*get_level)(gpio_item &item);

    /// Takes the interrupts that have happened. @return False when that failed; the reason is logged if asked.
    bool (*take_interrupts)(gpio_item &item, long long &count, bool is_logged);
};

extern const pin_kind board_pin;
extern const pin_kind simulated_pin;
extern const pin_kind chip_line;

// The state of a GPIO chip's line.
struct line_state {
    std::uint64_t flags;       // of the kernel's interface, from the configuration
    std::uint32_t debounce_us; // 0: none
    std::uint32_t last_event;  // its sequence number, of the last event that was read
    bool is_output;            // the library has made it one
};

using clock = std::chrono::steady_clock;

} // namespace kiv::gpio

// All fields are guarded by g_gpio_db.lock. The list's link comes first, close to the number, so that a walk
// through the table touches little memory. The fields behind sim_value are the module's own.
struct gpio_item {
    GList place; // in the pin table
    std::unique_ptr<char[]> name;
    int32_t gpio;
    kiv_gpio_cbk cbk;
    uintptr_t user_data;
    int32_t level_edge;
    int32_t edge_cfg;
    int32_t level_cfg;
    int32_t is_input;
    uint32_t input_flags;
    int32_t is_output;
    uint32_t output_flags;
    uint32_t output_value;
    int32_t fds[kiv::gpio::fd_types]; // fd_set_level, fd_get_level, fd_irq, fd_irqmask, ...; -1: not open
    int32_t sim_pipe[2];
    int32_t sim_value;

    const kiv::gpio::pin_kind *kind;
    kiv::gpio::line_state line;
    std::uint64_t pending;                      // interrupts that have been read, but not called back yet
    bool is_failing;                            // its "irq" node; reported, and not reported again
    int empty_wakeups;                          // wake-ups without an interrupt, in a row...
    kiv::gpio::clock::time_point empty_since;   // ...since then
    kiv::gpio::clock::time_point resting_until; // left out of the poll set until then
};

// The pin table.
struct gpio_db {
    kiv::mutex lock;

    // Held in addition while links or registrations change, for moments and never while anything is waited
    // for. A fork() takes this lock only: the listener may hold the other one for as long as a callback runs,
    // and the callback may wait for a lock that the forking thread holds.
    kiv::mutex fork_lock;

    GList *items KIV_GUARDED_BY(lock) = nullptr; // the newest first

    // The newest pins by the last bits of their numbers. Null: walk the list.
    std::array<gpio_item *, 256> shortcuts KIV_GUARDED_BY(lock) = {};

    bool is_poll_set_stale KIV_GUARDED_BY(lock) = false; // it differs from the table

    // Pins with a callback. Changes holding the lock, and only while the module is started.
    std::atomic<std::size_t> watched = 0;
};

extern constinit gpio_db g_gpio_db;

/// Reads a node as a decimal number.
/// @param is_logged  Logs the reason of a failure.
/// @return False when it failed.
bool __user_pins_sysfs_read(int fd, long long &value, bool is_logged);

namespace kiv::gpio
{

/// Closes all nodes of a pin.
void close_nodes(gpio_item &item);

/// Reads the GPIO chips from the configuration. A chip that cannot be used is reported and left out.
void find_chips(call_site site) KIV_REQUIRES(g_gpio_db.lock);

/// @return True when a pin number is a line of a chip.
bool is_chip_line(int gpio) KIV_REQUIRES(g_gpio_db.lock);

/// @return True on the listener's thread, which runs the callbacks.
bool is_listener() noexcept;

// The listener, one at a time. The caller serialises starting, stopping and talking to it.

/// @return KIV_OK, or the status after a line in the log; then nothing is left behind.
int32_t start_listener(call_site site);

/// Ends the listener's thread.
void join_listener(call_site site);

/// Releases what belonged to the listener.
void release_listener(call_site site);

/// Gives up, in a forked child, the listener that runs in the parent.
void forget_listener();

/// @return True when the listener has ended by itself: its command pipe is gone.
bool is_listener_lost() noexcept;

/// Makes room in the poll set for so many pins. @return False when there is no memory.
bool reserve_poll_set(std::size_t pins) KIV_REQUIRES(g_gpio_db.lock);

/// The commands to the listener, beside a plain wake-up.
enum class command : uint32_t { wake_up = 0, registered = 1, unregistered = 2 };

/// Tells the listener and waits until it has finished a pass and the poll set matches the table.
/// @return KIV_OK, KIV_ERR_SYSTEM when it could not be told, KIV_ERR_STATE when it has ended by itself.
int32_t tell_listener(command what, int gpio);

} // namespace kiv::gpio
