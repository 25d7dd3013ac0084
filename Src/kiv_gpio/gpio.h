// The pins, their nodes, and the listener: what the three sources of this module need of each other.
#pragma once

#include <glib.h>

#include <cstdint>
#include <memory>

#include "common/mutex.h"
#include "zol/kiv_gpio.h"

struct gpio_item;

namespace kiv::gpio
{

// The nodes of a pin by the type of their descriptors. "level" has two, one to set and one to get it.
enum fd_type { set_level, get_level, irq, irqmask, irqrequest, irqconfig, fd_types };

// What a pin does at the board, or does not in simulator mode. The pin keeps what it was opened with.
struct pin_kind {
    int32_t (*open)(gpio_item &item, fd_type type);
    void (*set_level)(gpio_item &item, int value);
    int (*get_level)(gpio_item &item);
    void (*write_irq)(gpio_item &item, fd_type type, int value); // one of the interrupt nodes
};

extern const pin_kind board_pin;
extern const pin_kind simulated_pin;

} // namespace kiv::gpio

// All fields are guarded by g_gpio_db.lock. The list's link comes first, close to the number: a walk through
// the table then touches little memory. What is behind sim_value is the module's own.
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
    uint32_t pending;    // interrupts that have been counted but not called back yet
    int failures;        // of its "irq" node, in a row
    int idle_wakeups;    // of its "irq" node without an interrupt, in a row
    bool is_given_up;    // not watched until its callback is registered anew
    bool is_in_poll_set; // the listener's, as last rebuilt
};

// The pin table.
struct gpio_db {
    kiv::mutex lock;
    GList *items KIV_GUARDED_BY(lock) = nullptr;         // the newest first
    bool is_poll_set_stale KIV_GUARDED_BY(lock) = false; // who is to be watched has changed
};

extern constinit gpio_db g_gpio_db;

/// Reads a node as a decimal number. @return Whether that worked; if not, the log says why.
bool __user_pins_sysfs_read(int fd, long long &value);

namespace kiv::gpio
{

/// Opens a node, unless it is open. @return KIV_OK, or the status for what has gone wrong and is logged.
int32_t open_node(gpio_item &item, fd_type type);

/// Closes what is open of a pin.
void close_nodes(gpio_item &item);

/// Requests, configures and unmasks a pin's interrupt.
void enable_interrupt(gpio_item &item);

/// @return Whether this thread is the listener, and so whoever calls a callback.
bool is_listener() noexcept;

// The listener, one at a time. Starting, stopping and talking to it is serialised by the caller.

/// @return KIV_OK, or the status for what could not be had; then nothing is left.
int32_t start_listener();

/// Ends the listener's thread.
void join_listener();

/// Gives back what belonged to it.
void release_listener();

/// The same in a forked child, for a listener that runs in the parent.
void forget_listener();

/// What the listener is told, beside a plain wake-up.
enum class command : uint32_t { wake_up = 0, registered = 1, unregistered = 2 };

/// Tells the listener and waits until it has finished the pass, and the poll set is as the table says.
/// @return False when it could not be told.
bool tell_listener(command what, int gpio);

} // namespace kiv::gpio
