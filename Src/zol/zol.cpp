// The start and the stop of the library: the one place that knows all modules, as two tables.

#include "zol/zol.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <iterator>

#include "common/cancellation.h"
#include "kiv_debug/log_as.h"

namespace
{

// The library's state. Written by zol_init() and zol_deinit(), which run on one thread.
struct library_state {
    std::atomic<int32_t> initialized; // kiv_lock() reads it on any thread
    char configName[64];              // from the configuration, for the log
    pthread_mutex_t lock;             // the application's; exists while initialized
};

library_state g_kiv;

constexpr char not_initialized[] = "the library is not initialized";

bool is_initialized() noexcept
{
    return g_kiv.initialized.load(std::memory_order_acquire) != 0;
}

void set_initialized(bool on) noexcept
{
    g_kiv.initialized.store(on ? 1 : 0, std::memory_order_release);
}

// Set while this thread holds the library lock; in a forked child it still holds it.
thread_local bool t_holds_lock;

// A thread that held the lock is not in the child, so nobody would release it. The fork does not wait for the
// lock: a thread that holds it may be waiting for the one that forks.
void free_lock_in_child() noexcept
{
    if (is_initialized() && !t_holds_lock) {
        pthread_mutex_init(&g_kiv.lock, nullptr);
    }
}

int32_t create_lock(const char *)
{
    static bool is_registered = false; // once in the life of the process
    if (!is_registered) {
        if (const int error = pthread_atfork(nullptr, nullptr, free_lock_in_child); error != 0) {
            return error;
        }
        is_registered = true;
    }
    return pthread_mutex_init(&g_kiv.lock, nullptr);
}

int32_t read_config_name(const char *)
{
    return kiv_config_get_param("general", "", "configName", g_kiv.configName, sizeof g_kiv.configName);
}

template <int32_t (*init)()>
int32_t start(const char *)
{
    return init();
}

bool is_zero(int32_t result)
{
    return result == 0;
}

bool is_one(int32_t result)
{
    return result == 1;
}

bool is_not_negative(int32_t result)
{
    return result >= 0;
}

struct startup_step {
    int32_t (*run)(const char *configFile);
    bool (*succeeded)(int32_t result);
    const char *purpose;
};

// The order matters: the log level is known once the configuration is loaded, and I2C comes last.
constexpr startup_step startup_steps[] = {
    {create_lock, is_zero, "create the library lock"},
    {kiv_config_init, is_one, "load the configuration"},
    {start<kiv_debug_init>, is_not_negative, "start the log"},
    {start<kiv_token_init>, is_zero, "start the token store"},
    {start<kiv_gpio_init>, is_zero, "start the pins"},
    {start<kiv_thread_init>, is_not_negative, "start the worker threads"},
    {start<kiv_events_init>, is_not_negative, "start the events"},
    {read_config_name, is_one, "read general.configName"},
    {start<kiv_i2c_init>, is_zero, "start I2C"},
};

int32_t deinit_tokens()
{
    kiv_token_deinit();
    return KIV_OK;
}

// Every module's stop copes with a module that was never started.
constexpr int32_t (*module_deinits[])() = {
    kiv_config_deinit, kiv_i2c_deinit,    kiv_gpio_deinit,   deinit_tokens,
    kiv_debug_deinit,  kiv_thread_deinit, kiv_events_deinit,
};

void deinit_modules()
{
    for (const auto deinit : module_deinits) {
        deinit();
    }
}

// A configuration file that could not be loaded has been reported by the configuration store.
bool is_reported(const startup_step &step, int32_t result)
{
    return step.run == kiv_config_init && result == 0;
}

bool run_step(const startup_step &step, const char *configFile, kiv::call_site site)
{
    const int32_t result = step.run(configFile);
    const bool succeeded = step.succeeded(result);
    if (!succeeded && !is_reported(step, result)) {
        static_cast<void>(KIV_HOLDS_AT(site, succeeded));
        KIV_LOG_AT(site, ERRR, "can't %s: result %d\n", step.purpose, result);
    }
    return succeeded;
}

bool run_startup(const char *configFile, kiv::call_site site)
{
    return std::all_of(std::begin(startup_steps), std::end(startup_steps),
                       [=](const startup_step &step) { return run_step(step, configFile, site); });
}

} // namespace

int32_t zol_init(const char *configFile)
{
    if (is_initialized()) {
        return KIV_OK;
    }
    KIV_LOG_PRNT("initialize kiv\n");
    g_kiv.configName[0] = '\0';
    const bool started =
        run_startup(configFile != nullptr ? configFile : "/etc/kiv/conf.xml", kiv::call_site::here());
    KIV_LOG_PRNT("initialize kiv - configName[%s]\n", g_kiv.configName);
    if (!started) { // some modules may run: stopping the others does no harm
        deinit_modules();
        pthread_mutex_destroy(&g_kiv.lock);
        return KIV_ERR_INVALID_PARAM;
    }
    set_initialized(true);
    return KIV_OK;
}

int32_t zol_deinit(void)
{
    KIV_LOG_PRNT("destruct kiv\n");
    if (!is_initialized()) {
        KIV_LOG_ERRR("%s\n", not_initialized);
        kiv_test_util_deinit(); // tests are registered without a start, too
        return KIV_ERR_STATE;
    }
    const kiv::cancellation_off uncancelled; // the lock is held while threads are joined
    kiv_lock();
    deinit_modules();
    kiv_test_util_deinit();
    kiv_unlock();
    pthread_mutex_destroy(&g_kiv.lock);
    set_initialized(false);
    return KIV_OK;
}

void kiv_lock(void)
{
    if (KIV_GIVEN(is_initialized(), not_initialized)) {
        const int result = pthread_mutex_lock(&g_kiv.lock);
        t_holds_lock = KIV_HOLDS(result == 0);
    }
}

void kiv_unlock(void)
{
    if (KIV_GIVEN(is_initialized(), not_initialized)) {
        t_holds_lock = false;
        const int result = pthread_mutex_unlock(&g_kiv.lock);
        KIV_ASSERT(result == 0);
    }
}
