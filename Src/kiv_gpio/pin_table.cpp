// The pin table: its records, and the callbacks registered in them.

#include "pin_table.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <iterator>
#include <new>

#include "common/intrusive_list.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using kiv::scoped_lock;
using namespace kiv::gpio;

constinit gpio_db g_gpio_db;

namespace
{

constexpr uint32_t all_ones = UINT32_MAX; // in the fields of a registration that is no more
constexpr registration no_registration = {nullptr, all_ones, {static_cast<int>(all_ones), 0}};

gpio_item *&shortcut_of(int gpio) KIV_REQUIRES(g_gpio_db.lock)
{
    return g_gpio_db.shortcuts[static_cast<unsigned>(gpio) % g_gpio_db.shortcuts.size()];
}

// A pin far down the list would cost more than the read of its node.
gpio_item *__gpio_item_find(int gpio) KIV_REQUIRES(g_gpio_db.lock)
{
    if (gpio_item *const shortcut = shortcut_of(gpio); shortcut != nullptr && shortcut->gpio == gpio) {
        return shortcut;
    }
    for (const GList *place = g_gpio_db.items; place != nullptr; place = place->next) {
        auto *const item = static_cast<gpio_item *>(place->data);
        if (item != nullptr && item->gpio == gpio) {
            return item;
        }
    }
    return nullptr;
}

// The listener rebuilds its poll set in the next pass.
void add_watched(const gpio_item &item, int change) KIV_REQUIRES(g_gpio_db.lock)
{
    if (item.cbk != nullptr) {
        g_gpio_db.watched += static_cast<std::size_t>(change);
        g_gpio_db.is_poll_set_stale = true;
    }
}

void set_registration(gpio_item &item, const registration &set) KIV_REQUIRES(g_gpio_db.lock)
{
    const scoped_lock no_fork(g_gpio_db.fork_lock);
    add_watched(item, -1);
    item.cbk = set.cbk;
    add_watched(item, 1);
    item.user_data = set.user_data;
    item.level_edge = set.cause.level_edge;
    item.pending = 0; // interrupts that were read for one callback are not for the next
    item.is_failing = false;
    item.empty_wakeups = 0;
    item.resting_until = {};
}

void __gpio_item_dump(const gpio_item &item)
{
    static constexpr char line[] =
        "-------------------------------------------------------------------------\n";
    KIV_LOG_INF1("%s", line);
    KIV_LOG_INF1("GPIO no.%d : %15s\n", item.gpio, item.name.get());
    KIV_LOG_INF1("%s", line);
    if (item.is_input != 0) {
        KIV_LOG_INF1("input, \t\t\tflags=0x%08x\n", item.input_flags);
    } else if (item.is_output != 0) {
        KIV_LOG_INF1("output, \t\tf\tlags=0x%08x, value=0x08%x\n", item.output_flags, item.output_value);
    }
    KIV_LOG_INF1("cbk\t\t:0x%08" PRIxPTR ", \t\tuser_data=0x%08" PRIxPTR "\n",
                 reinterpret_cast<uintptr_t>(item.cbk), item.user_data);
    KIV_LOG_INF1("level_edge\t:0x%08x\n", static_cast<unsigned>(item.level_edge));
    KIV_LOG_INF1("edge_cfg=\t:0x%08x, \t\tlevel_cfg=0x%08x\n", static_cast<unsigned>(item.edge_cfg),
                 static_cast<unsigned>(item.level_cfg));
}

} // namespace

void __gpio_item_free(gpio_item *item)
{
    close_nodes(*item);
    delete item;
}

unique_item kiv::gpio::make_item(int gpio, const char *name, const pin_kind &kind)
{
    const std::size_t size = std::strlen(name) + 1;
    unique_item item(new (std::nothrow) gpio_item());
    if (item) {
        std::fill(std::begin(item->fds), std::end(item->fds), -1);
        item->name.reset(new (std::nothrow) char[size]);
    }
    if (!item || !item->name) {
        return nullptr;
    }
    std::memcpy(item->name.get(), name, size);
    item->gpio = gpio;
    item->kind = &kind;
    return item;
}

gpio_item *kiv::gpio::find_or_report(call_site site, int gpio)
{
    gpio_item *const item = __gpio_item_find(gpio);
    if (item == nullptr) {
        KIV_LOG_AT(site, ERRR, "Failed to find the gpio - gpio is not allocated.\n");
    }
    return item;
}

void kiv::gpio::put_in(gpio_item &item)
{
    const scoped_lock no_fork(g_gpio_db.fork_lock);
    kiv::prepend(g_gpio_db.items, item, item.place);
    shortcut_of(item.gpio) = &item;
}

void kiv::gpio::take_out(gpio_item &item)
{
    const scoped_lock lock(g_gpio_db.lock);
    const scoped_lock no_fork(g_gpio_db.fork_lock);
    g_gpio_db.items = g_list_remove_link(g_gpio_db.items, &item.place);
    if (gpio_item *&shortcut = shortcut_of(item.gpio); shortcut == &item) {
        shortcut = nullptr;
    }
    add_watched(item, -1);
}

void kiv::gpio::put_back(gpio_item &item)
{
    const scoped_lock lock(g_gpio_db.lock);
    put_in(item);
    add_watched(item, 1);
}

int32_t kiv::gpio::add_callback(call_site site, gpio_item &item, const registration &added)
{
    const scoped_lock lock(g_gpio_db.lock);
    if (item.cbk != nullptr) {
        KIV_LOG_AT(site, ERRR, "Callback already registered.\n");
        return KIV_ERR_INVALID_PARAM;
    }
    if (!reserve_poll_set(g_gpio_db.watched + 1)) {
        KIV_LOG_AT(site, ERRR, "Failed to allocate fdset.\n");
        return KIV_ERR_NO_MEMORY;
    }
    const int32_t status = item.kind->enable_interrupt(site, item, added.cause);
    if (status == KIV_OK) {
        set_registration(item, added);
    }
    return status;
}

bool kiv::gpio::withdraw_callback(gpio_item &item)
{
    const scoped_lock lock(g_gpio_db.lock);
    const bool has_callback = item.cbk != nullptr;
    if (has_callback) {
        item.kind->disable_interrupt(item);
        set_registration(item, no_registration);
        item.edge_cfg = item.level_cfg = static_cast<int>(all_ones);
    }
    return has_callback;
}

void kiv::gpio::dump_pins()
{
    for (const GList *place = g_gpio_db.items; place != nullptr; place = place->next) {
        __gpio_item_dump(*static_cast<gpio_item *>(place->data));
    }
}
