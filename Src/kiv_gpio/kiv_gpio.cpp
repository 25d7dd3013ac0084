// The operations on pins, the module's start and stop, and forks.
//
// One mutex guards the table and all records; the listener holds it during a pass, callbacks included. A
// caller that talks to the listener takes its turn first, and so does the stop: nobody ever waits for a
// listener that is about to end.

#include <pthread.h>

#include <atomic>
#include <new>

#include "common/cancellation.h"
#include "kiv_debug/call_trace.h"
#include "kiv_debug/log_as.h"
#include "pin_table.h"
#include "zol/kiv_config.h"
#include "zol/kiv_status.h"

using kiv::call_site;
using kiv::scoped_lock;
using namespace kiv::gpio;

namespace
{

// Taken before any other lock: one caller at a time talks to the listener or stops it.
kiv::mutex g_turn;

// Serialises start and stop.
kiv::mutex g_lock;
std::atomic<int> g_module_instialized; // changes holding g_lock, and back to 0 only holding g_turn as well

std::atomic<int> g_simulation;

// The frame of an operation: its lines in the log. Such an operation holds the table's mutex, and makes no call in which
// its thread could be cancelled.
class short_call
{
public:
    explicit short_call(call_site site = call_site::here()) noexcept
        : site_(site), trace_(site.line, site.function)
    {
    }

    [[nodiscard]] call_site site() const noexcept { return site_; }

    // A callback holds the table's mutex by way of the listener, which would wait for itself.
    [[nodiscard]] bool is_refused() const
    {
        const bool is_callback = is_listener();
        if (is_callback) {
            KIV_LOG_AT(site_, ERRR, "not to be called from a callback\n");
        }
        return is_callback;
    }

private:
    call_site site_;
    kiv::call_trace trace_;
};

// The frame of one that opens nodes or talks to the listener, and is not cancelled meanwhile.
class public_call : kiv::cancellation_off, public short_call
{
public:
    explicit public_call(call_site site = call_site::here()) noexcept : short_call(site) {}
};

// Runs an operation on one pin, holding the table's mutex.
template <typename Operation>
int32_t do_with_pin(const short_call &call, int gpio, Operation operation)
{
    if (call.is_refused()) {
        return KIV_ERR_STATE;
    }
    const scoped_lock lock(g_gpio_db.lock);
    gpio_item *const item = find_or_report(call.site(), gpio);
    return item != nullptr ? operation(*item) : KIV_ERR_INVALID_PARAM;
}

// @return True, after a line in the log, when there is no listener to talk to.
bool lacks_listener(call_site site, int gpio) KIV_REQUIRES(g_turn)
{
    const bool is_initialized = g_module_instialized != 0;
    if (!is_initialized) {
        KIV_LOG_AT(site, ERRR, "Module is not initialized, gpio %d\n", gpio);
    } else if (is_listener_lost()) {
        KIV_LOG_AT(site, ERRR, "The listener has ended, gpio %d\n", gpio);
    }
    return !is_initialized || is_listener_lost();
}

// Runs an operation on one pin that talks to the listener: the caller has its turn meanwhile, so that nobody
// else frees the pin.
template <typename Operation>
int32_t do_in_turn(const public_call &call, int gpio, Operation operation)
{
    if (call.is_refused()) {
        return KIV_ERR_STATE;
    }
    const scoped_lock turn(g_turn);
    gpio_item *pin = nullptr;
    {
        const scoped_lock lock(g_gpio_db.lock);
        pin = find_or_report(call.site(), gpio);
    }
    if (pin == nullptr) {
        return KIV_ERR_INVALID_PARAM;
    }
    return lacks_listener(call.site(), gpio) ? KIV_ERR_STATE : operation(*pin);
}

// A board without a name is worth a line, but no reason not to register.
void check_configuration(call_site site)
{
    char config_name[64] = {};
    if (!KIV_HOLDS_AT(
            site, kiv_config_get_param("general", "", "configName", config_name, sizeof config_name) == 1)) {
        KIV_LOG_AT(site, ERRR, "the key \"configName\" is missing in the section \"general\"\n");
    }
}

// The kind that a pin is to have when it is allocated now.
const pin_kind &kind_of(int gpio) KIV_REQUIRES(g_gpio_db.lock)
{
    return g_simulation != 0 ? simulated_pin : is_chip_line(gpio) ? chip_line : board_pin;
}

// The board decides what an input is.
int32_t check_direction(gpio_item &)
{
    return KIV_OK;
}

// A fork() must not wait for a callback, so it does not take the mutex that the listener holds. It does not
// have to: links and registrations change under fork_lock only, and the child has no other thread.
void before_fork() KIV_ACQUIRE(g_gpio_db.fork_lock)
{
    g_gpio_db.fork_lock.lock();
}

void after_fork_in_parent() KIV_RELEASE(g_gpio_db.fork_lock)
{
    g_gpio_db.fork_lock.unlock();
}

void after_fork_in_child() KIV_RELEASE(g_gpio_db.fork_lock)
{
    g_gpio_db.fork_lock.unlock();
    new (&g_turn) kiv::mutex();
    new (&g_lock) kiv::mutex();
    if (!is_listener()) { // else a callback has forked, and this thread releases the lock when it returns
        new (&g_gpio_db.lock) kiv::mutex();
    }
    g_module_instialized = 0;
    forget_listener();
}

bool prepare_for_forks(call_site site) KIV_REQUIRES(g_lock)
{
    static bool is_prepared = false;
    if (!is_prepared) {
        is_prepared = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
    }
    if (!is_prepared) {
        KIV_LOG_AT(site, ERRR, "Failed to register the handlers of fork\n");
    }
    return is_prepared;
}

int32_t start(call_site site)
{
    const scoped_lock lock(g_lock);
    if (g_module_instialized != 0) {
        KIV_LOG_AT(site, ERRR, "module initialized already\n");
        return KIV_ERR_STATE;
    }
    if (!prepare_for_forks(site)) {
        return KIV_ERR_NO_MEMORY;
    }
    const int32_t status = start_listener(site);
    g_module_instialized = status == KIV_OK ? 1 : 0;
    return status;
}

} // namespace

int32_t kiv_gpio_init(void)
{
    const public_call call;
    if (call.is_refused()) {
        return KIV_ERR_STATE;
    }
    const int32_t status = start(call.site());
    if (status == KIV_OK) {
        const scoped_lock lock(g_gpio_db.lock);
        find_chips(call.site());
    }
    return status;
}

int32_t kiv_gpio_deinit(void)
{
    const public_call call;
    if (call.is_refused()) {
        return KIV_ERR_STATE;
    }
    const scoped_lock turn(g_turn);
    if (g_module_instialized == 0) {
        KIV_LOG_ERRR("Trying to deinitialize uninitialized module\n");
        return KIV_ERR_STATE;
    }
    join_listener(call.site());
    const scoped_lock lock(g_lock);
    release_listener(call.site());
    g_module_instialized = 0;
    return KIV_OK;
}

int32_t kiv_gpio_set_simulator_mode(int on)
{
    g_simulation = on != 0 ? 1 : 0;
    return KIV_OK;
}

int32_t kiv_gpio_request(int gpio, const char *name)
{
    const public_call call;
    if (call.is_refused()) {
        return KIV_ERR_STATE;
    }
    if (name == nullptr) {
        KIV_LOG_ERRR("gpio %d needs a name\n", gpio);
        return KIV_ERR_INVALID_PARAM;
    }
    const scoped_lock lock(g_gpio_db.lock);
    unique_item item = make_item(gpio, name, kind_of(gpio));
    if (!KIV_HOLDS(item != nullptr)) {
        KIV_LOG_ERRR("no memory for gpio %d\n", gpio);
        return KIV_ERR_NO_MEMORY;
    }
    const int32_t status = item->kind->open(call.site(), *item);
    if (status == KIV_OK) {
        put_in(*item.release()); // the table's
    }
    return status;
}

int32_t kiv_gpio_free(int gpio)
{
    const public_call call;
    return do_in_turn(call, gpio, [gpio](gpio_item &pin) {
        take_out(pin);
        const int32_t status = tell_listener(command::wake_up, gpio);
        if (status == KIV_OK) {
            __gpio_item_free(&pin);
        } else { // the listener may be polling the pin's descriptor
            put_back(pin);
        }
        return status;
    });
}

int32_t kiv_gpio_set(int gpio, int value)
{
    const short_call call;
    return do_with_pin(call, gpio, [value](gpio_item &item) {
        item.kind->set_level(item, value);
        return KIV_OK;
    });
}

int32_t kiv_gpio_get(int gpio, int *value)
{
    const short_call call;
    return do_with_pin(call, gpio, [value, &call](gpio_item &item) {
        if (value == nullptr) {
            KIV_LOG_AT(call.site(), ERRR, "Got NULL as destination for output!\n");
            return KIV_ERR_INVALID_PARAM;
        }
        *value = item.kind->get_level(item);
        return KIV_OK;
    });
}

int32_t kiv_gpio_direction_in(int gpio)
{
    const short_call call;
    return do_with_pin(call, gpio, check_direction);
}

int32_t kiv_gpio_direction_out(int gpio)
{
    const short_call call;
    return do_with_pin(call, gpio, check_direction);
}

int32_t kiv_gpio_status_dump(void)
{
    const public_call call;
    if (call.is_refused()) {
        return KIV_ERR_STATE;
    }
    const scoped_lock lock(g_gpio_db.lock);
    dump_pins();
    return KIV_OK;
}

int32_t kiv_gpio_register_callback(int gpio, int level_edge, int edge_cfg, int, kiv_gpio_cbk cbk,
                                   uintptr_t user_data)
{
    const public_call call;
    if (call.is_refused()) {
        return KIV_ERR_STATE;
    }
    if (cbk == nullptr) {
        KIV_LOG_ERRR("gpio %d needs a callback\n", gpio);
        return KIV_ERR_INVALID_PARAM;
    }
    check_configuration(call.site());
    return do_in_turn(call, gpio, [&](gpio_item &pin) {
        int32_t status = add_callback(call.site(), pin, {cbk, user_data, {level_edge, edge_cfg}});
        if (status == KIV_OK) {
            status = tell_listener(command::registered, gpio);
            if (status != KIV_OK) { // nobody would call it
                withdraw_callback(pin);
            }
        }
        return status;
    });
}

int32_t kiv_gpio_unregister_callback(int gpio)
{
    const public_call call;
    return do_in_turn(call, gpio, [gpio, &call](gpio_item &pin) {
        if (!withdraw_callback(pin)) {
            KIV_LOG_AT(call.site(), ERRR, "There is no callback registered for this gpio.\n");
            return KIV_ERR_INVALID_PARAM;
        }
        tell_listener(command::unregistered, gpio); // told or not, the callback will not run again
        return KIV_OK;
    });
}
