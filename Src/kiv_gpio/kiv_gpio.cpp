// The pin table, and the operations on pins.
//
// One mutex guards the table and all records; the listener holds it during a pass, callbacks included. Who
// wants something from the listener takes his turn first, and so does the stop: thus nobody ever waits for a
// listener that is about to end.

#include <cinttypes>
#include <cstring>
#include <new>

#include "common/call_trace.h"
#include "common/log_as.h"
#include "gpio.h"
#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using kiv::call_trace;
using kiv::scoped_lock;
using namespace kiv::gpio;

constinit gpio_db g_gpio_db;

namespace
{

constexpr uint32_t all_ones = UINT32_MAX; // in the fields of a registration that is no more

// Taken before any other lock: one at a time talks with the listener or stops it.
kiv::mutex g_turn;

// Serialises start and stop.
kiv::mutex g_lock;
int g_module_instialized; // atomic; changed holding g_lock, and back to 0 only holding g_turn as well

int g_simulation; // atomic

bool is_initialized() noexcept
{
    return __atomic_load_n(&g_module_instialized, __ATOMIC_ACQUIRE) != 0;
}

void set_initialized(bool on) noexcept
{
    __atomic_store_n(&g_module_instialized, on ? 1 : 0, __ATOMIC_RELEASE);
}

// A callback holds the table's mutex by way of the listener, which would wait for itself.
bool is_refused_here(const char *operation)
{
    if (is_listener()) {
        KIV_LOG_AS(operation, ERRR, "not to be called from a callback\n");
        return true;
    }
    return false;
}

// What needs the listener cannot be done without it.
bool is_refused_now(const char *operation, int gpio) KIV_REQUIRES(g_turn)
{
    if (!is_initialized()) {
        KIV_LOG_AS(operation, ERRR, "Module is not initialized, gpio %d\n", gpio);
        return true;
    }
    return false;
}

gpio_item *__gpio_item_find(int gpio) KIV_REQUIRES(g_gpio_db.lock)
{
    for (const GList *place = g_gpio_db.items; place != nullptr; place = place->next) {
        auto *const item = static_cast<gpio_item *>(place->data);
        if (item != nullptr && item->gpio == gpio) {
            return item;
        }
    }
    return nullptr;
}

int32_t report_not_allocated(const char *operation)
{
    KIV_LOG_AS(operation, ERRR, "Failed to find the gpio - gpio is not allocated.\n");
    return KIV_ERR_INVALID_PARAM;
}

// An operation on one pin, done holding the table's mutex.
template <typename Operation>
int32_t do_with_pin(const char *name, int gpio, Operation operation)
{
    if (is_refused_here(name)) {
        return KIV_ERR_STATE;
    }
    const scoped_lock lock(g_gpio_db.lock);
    gpio_item *const item = __gpio_item_find(gpio);
    return item != nullptr ? operation(*item) : report_not_allocated(name);
}

// An operation that ends in talking with the listener.
template <typename Operation>
int32_t do_in_turn(const char *name, int gpio, Operation operation)
{
    if (is_refused_here(name)) {
        return KIV_ERR_STATE;
    }
    const scoped_lock turn(g_turn);
    return is_refused_now(name, gpio) ? KIV_ERR_STATE : operation();
}

void prepend(gpio_item &item) KIV_REQUIRES(g_gpio_db.lock)
{
    item.place = {&item, nullptr, nullptr};
    g_gpio_db.items = g_list_concat(&item.place, g_gpio_db.items);
}

void __gpio_item_free(gpio_item *item)
{
    close_nodes(*item);
    delete item;
}

struct item_freer {
    void operator()(gpio_item *item) const { __gpio_item_free(item); }
};

using unique_item = std::unique_ptr<gpio_item, item_freer>;

// A record with a copy of the name, and nothing open. Null when there is no memory.
unique_item make_item(int gpio, const char *name)
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
    item->kind = __atomic_load_n(&g_simulation, __ATOMIC_RELAXED) != 0 ? &simulated_pin : &board_pin;
    return item;
}

// The nodes that an allocated pin has open, and what is said where one of them could not be opened.
constexpr struct {
    fd_type type;
    const char *what;
} nodes_of_a_pin[] = {{set_level, "set level"}, {get_level, "get level"}, {irq, "irq"}};

int32_t open_nodes(gpio_item &item)
{
    for (const auto &[type, what] : nodes_of_a_pin) {
        if (const int32_t status = open_node(item, type); status != KIV_OK) {
            KIV_LOG_AS("kiv_gpio_request", ERRR, "failed opening %s for gpio %d\n", what, item.gpio);
            return status;
        }
    }
    return KIV_OK;
}

// A board without a name is worth a line, but no reason not to register.
void check_configuration()
{
    char config_name[64] = {};
    const bool is_configured =
        kiv_config_get_param("general", "", "configName", config_name, sizeof config_name) == 1;
    KIV_ASSERT(is_configured);
}

int32_t open_interrupt_nodes(gpio_item &item)
{
    for (const fd_type type : {irq, irqmask, irqrequest, irqconfig}) {
        if (const int32_t status = open_node(item, type); status != KIV_OK) {
            KIV_LOG_AS("kiv_gpio_register_callback", ERRR, "failed opening irq for gpio %d\n", item.gpio);
            return status;
        }
    }
    return KIV_OK;
}

// The listener has to be told, but without the table's mutex held, which it needs.
void set_callback(gpio_item &item, kiv_gpio_cbk cbk, uintptr_t user_data, int level_edge)
    KIV_REQUIRES(g_gpio_db.lock)
{
    item.cbk = cbk;
    item.user_data = user_data;
    item.level_edge = level_edge;
    item.failures = 0;
    item.is_given_up = false;
    g_gpio_db.is_poll_set_stale = true;
}

void clear_callback(gpio_item &item) KIV_REQUIRES(g_gpio_db.lock)
{
    set_callback(item, nullptr, all_ones, static_cast<int>(all_ones));
    item.edge_cfg = item.level_cfg = static_cast<int>(all_ones);
}

int32_t add_callback(gpio_item &item, int level_edge, kiv_gpio_cbk cbk, uintptr_t user_data)
    KIV_REQUIRES(g_gpio_db.lock)
{
    if (const int32_t status = open_interrupt_nodes(item); status != KIV_OK) {
        return status;
    }
    if (item.cbk != nullptr) {
        KIV_LOG_AS("kiv_gpio_register_callback", ERRR, "Callback already registered.\n");
        return KIV_ERR_INVALID_PARAM;
    }
    set_callback(item, cbk, user_data, level_edge);
    enable_interrupt(item);
    return KIV_OK;
}

int32_t remove_callback(gpio_item &item) KIV_REQUIRES(g_gpio_db.lock)
{
    if (item.cbk == nullptr) {
        KIV_LOG_AS("kiv_gpio_unregister_callback", ERRR, "There is no callback registered for this gpio.\n");
        return KIV_ERR_INVALID_PARAM;
    }
    clear_callback(item);
    return KIV_OK;
}

// Takes a pin out of the table. The listener forgets it at its next pass.
gpio_item *take_out(int gpio)
{
    const scoped_lock lock(g_gpio_db.lock);
    gpio_item *const item = __gpio_item_find(gpio);
    if (item != nullptr) {
        g_gpio_db.items = g_list_remove_link(g_gpio_db.items, &item->place);
        g_gpio_db.is_poll_set_stale |= item->is_in_poll_set;
    }
    return item;
}

void put_back(gpio_item &item)
{
    const scoped_lock lock(g_gpio_db.lock);
    prepend(item);
}

// The board decides what an input is.
int32_t check_direction(gpio_item &)
{
    return KIV_OK;
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

int32_t kiv_gpio_init(void)
{
    const call_trace trace;
    if (is_refused_here(__func__)) {
        return KIV_ERR_STATE;
    }
    const scoped_lock lock(g_lock);
    if (is_initialized()) {
        KIV_LOG_ERRR("module initialized already\n");
        return KIV_ERR_STATE;
    }
    const int32_t status = start_listener();
    set_initialized(status == KIV_OK);
    return status;
}

int32_t kiv_gpio_deinit(void)
{
    const call_trace trace;
    if (is_refused_here(__func__)) {
        return KIV_ERR_STATE;
    }
    const scoped_lock turn(g_turn);
    if (!is_initialized()) {
        KIV_LOG_ERRR("Trying to deinitialize uninitialized module\n");
        return KIV_ERR_STATE;
    }
    join_listener();
    const scoped_lock lock(g_lock);
    release_listener();
    set_initialized(false);
    return KIV_OK;
}

int32_t kiv_gpio_set_simulator_mode(int on)
{
    __atomic_store_n(&g_simulation, on != 0 ? 1 : 0, __ATOMIC_RELAXED);
    return KIV_OK;
}

int32_t kiv_gpio_request(int gpio, const char *name)
{
    const call_trace trace;
    if (is_refused_here(__func__)) {
        return KIV_ERR_STATE;
    }
    if (name == nullptr) {
        KIV_LOG_ERRR("gpio %d needs a name\n", gpio);
        return KIV_ERR_INVALID_PARAM;
    }
    const scoped_lock lock(g_gpio_db.lock);
    unique_item item = make_item(gpio, name);
    KIV_ASSERT(item != nullptr);
    if (!item) {
        return KIV_ERR_NO_MEMORY;
    }
    if (const int32_t status = open_nodes(*item); status != KIV_OK) {
        return status;
    }
    prepend(*item.release());
    return KIV_OK;
}

int32_t kiv_gpio_free(int gpio)
{
    const call_trace trace;
    return do_in_turn(__func__, gpio, [gpio] {
        gpio_item *const item = take_out(gpio);
        if (item == nullptr) {
            return report_not_allocated("kiv_gpio_free");
        }
        if (!tell_listener(command::wake_up, gpio)) { // it may be polling the pin's descriptor
            put_back(*item);
            return KIV_ERR_SYSTEM;
        }
        __gpio_item_free(item);
        return KIV_OK;
    });
}

int32_t kiv_gpio_set(int gpio, int value)
{
    const call_trace trace;
    return do_with_pin(__func__, gpio, [value](gpio_item &item) {
        item.kind->set_level(item, value);
        return KIV_OK;
    });
}

int32_t kiv_gpio_get(int gpio, int *value)
{
    const call_trace trace;
    return do_with_pin(__func__, gpio, [value](gpio_item &item) {
        if (value == nullptr) {
            KIV_LOG_AS("kiv_gpio_get", ERRR, "Got NULL as destination for output!\n");
            return KIV_ERR_INVALID_PARAM;
        }
        *value = item.kind->get_level(item);
        return KIV_OK;
    });
}

int32_t kiv_gpio_direction_in(int gpio)
{
    const call_trace trace;
    return do_with_pin(__func__, gpio, check_direction);
}

int32_t kiv_gpio_direction_out(int gpio)
{
    const call_trace trace;
    return do_with_pin(__func__, gpio, check_direction);
}

int32_t kiv_gpio_status_dump(void)
{
    const call_trace trace;
    if (is_refused_here(__func__)) {
        return KIV_ERR_STATE;
    }
    const scoped_lock lock(g_gpio_db.lock);
    for (const GList *place = g_gpio_db.items; place != nullptr; place = place->next) {
        __gpio_item_dump(*static_cast<gpio_item *>(place->data));
    }
    return KIV_OK;
}

int32_t kiv_gpio_register_callback(int gpio, int level_edge, int, int, kiv_gpio_cbk cbk, uintptr_t user_data)
{
    const call_trace trace;
    if (cbk == nullptr) {
        KIV_LOG_ERRR("gpio %d needs a callback\n", gpio);
        return KIV_ERR_INVALID_PARAM;
    }
    return do_in_turn(__func__, gpio, [=] {
        check_configuration();
        const int32_t status = do_with_pin("kiv_gpio_register_callback", gpio,
                                           [=](gpio_item &item) KIV_REQUIRES(g_gpio_db.lock) {
                                               return add_callback(item, level_edge, cbk, user_data);
                                           });
        if (status != KIV_OK) {
            return status;
        }
        if (!tell_listener(command::registered, gpio)) {
            do_with_pin("kiv_gpio_register_callback", gpio, remove_callback); // which nobody would call
            return KIV_ERR_SYSTEM;
        }
        return KIV_OK;
    });
}

int32_t kiv_gpio_unregister_callback(int gpio)
{
    const call_trace trace;
    return do_in_turn(__func__, gpio, [gpio] {
        const int32_t status = do_with_pin("kiv_gpio_unregister_callback", gpio, remove_callback);
        if (status == KIV_OK) {
            tell_listener(command::unregistered, gpio); // told or not, the callback will not run again
        }
        return status;
    });
}
