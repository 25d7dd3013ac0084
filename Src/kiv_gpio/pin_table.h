// The pin table: its records, and the callbacks registered in them. Part of the operations on pins.
#pragma once

#include <cstdint>
#include <memory>

#include "gpio.h"
#include "kiv_debug/log_as.h"

void __gpio_item_free(gpio_item *item);

namespace kiv::gpio
{

struct item_freer {
    void operator()(gpio_item *item) const { __gpio_item_free(item); }
};

using unique_item = std::unique_ptr<gpio_item, item_freer>;

/// Makes a record with a copy of the name, and nothing open. @return Null when there is no memory.
unique_item make_item(int gpio, const char *name, const pin_kind &kind);

/// @return The newest pin of the number; null, after a line in the log, when there is none.
gpio_item *find_or_report(call_site site, int gpio) KIV_REQUIRES(g_gpio_db.lock);

/// Puts a new pin at the head of the table.
void put_in(gpio_item &item) KIV_REQUIRES(g_gpio_db.lock);

/// Takes a pin out of the table. The listener forgets it at its next pass.
void take_out(gpio_item &item);

/// Undoes take_out().
void put_back(gpio_item &item);

struct registration {
    kiv_gpio_cbk cbk;
    uintptr_t user_data;
    interrupt_cause cause;
};

/// Registers a callback and enables the pin's interrupt. The listener takes notice at its next pass.
/// @return KIV_OK, or the status after a line in the log.
int32_t add_callback(call_site site, gpio_item &item, const registration &added);

/// Withdraws a callback and disables the interrupt. @return False when there is no callback.
bool withdraw_callback(gpio_item &item);

/// Logs all pins at INF1.
void dump_pins() KIV_REQUIRES(g_gpio_db.lock);

} // namespace kiv::gpio
