// The listener: one thread that waits for commands and for the interrupts of all pins with callbacks.
//
// A command is a word in a pipe, and whoever sends it waits until the listener has finished the pass that it
// woke and has brought the poll set up to date: a pin that is being freed is out of the set before its
// descriptors are closed, so no pass ever meets a number that has become somebody else's.

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <csignal>
#include <memory>
#include <new>
#include <utility>

#include "common/call_trace.h"
#include "common/immortal.h"
#include "common/log_as.h"
#include "common/uninterrupted.h"
#include "gpio.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using kiv::call_trace;
using kiv::scoped_lock;
using namespace kiv::gpio;

namespace
{

constexpr uint32_t ping_word = 0xDEADBEEF;
constexpr int max_failures_in_a_row = 3;
constexpr int max_idle_wakeups_in_a_row = 1000;
constexpr int callbacks_at_once = 256; // per pin and pass: others want their turn, and the table
constexpr int retry_ms = 100;          // what has failed and is to be tried again
constexpr int forever = -1;

// Whose lines these are in the log.
constexpr char init_routine[] = "kiv_gpio_init";
constexpr char deinit_routine[] = "kiv_gpio_deinit";
constexpr char pass_routine[] = "__listener_process_events";

// Entry 0 is the command pipe. Touched by the listener alone while it runs.
struct poll_set {
    std::unique_ptr<pollfd[]> fds;
    std::unique_ptr<gpio_item *[]> pins; // whose "irq" node the entry is
    std::size_t count;
    std::size_t room;
};

kiv::immortal<poll_set> g_poll_fds;
bool g_is_short_of_memory; // for the poll set; reported once
bool g_is_poll_failing;    // reported once
int g_fds[2] = {-1, -1};   // the command pipe: the listener's end, the callers' end
sem_t g_api_sem;
std::atomic<int> thread_db; // the stop flag
pthread_t g_listener;

thread_local bool t_is_listener [[gnu::tls_model("initial-exec")]];

void __pollfd_init(pollfd &entry, int fd)
{
    KIV_LOG_INF1("p_pollfd=0x%" PRIxPTR ", fd=%d\n", reinterpret_cast<uintptr_t>(&entry), fd);
    entry.fd = fd;
    entry.events = POLLIN | POLLPRI | POLLERR | POLLHUP;
}

// Gives the poll set room for so many entries. It never shrinks, so leaving entries out cannot fail.
bool make_room(std::size_t count, const char *caller)
{
    if (count <= g_poll_fds->room) {
        return true;
    }
    std::unique_ptr<pollfd[]> fds(new (std::nothrow) pollfd[count]());
    std::unique_ptr<gpio_item *[]> pins(new (std::nothrow) gpio_item *[count]());
    const bool was_short = std::exchange(g_is_short_of_memory, !fds || !pins);
    if (g_is_short_of_memory) {
        if (!was_short) {
            KIV_LOG_AS(caller, ERRR, "Failed to allocate fdset.\n");
        }
        return false;
    }
    g_poll_fds.value = {std::move(fds), std::move(pins), 0, count};
    return true;
}

bool is_to_be_watched(const gpio_item &item) noexcept
{
    return item.cbk != nullptr && !item.is_given_up;
}

std::size_t count_to_be_watched() KIV_REQUIRES(g_gpio_db.lock)
{
    std::size_t count = 0;
    for (const GList *place = g_gpio_db.items; place != nullptr; place = place->next) {
        count += is_to_be_watched(*static_cast<gpio_item *>(place->data)) ? 1 : 0;
    }
    return count;
}

// Makes the poll set what the table says. When there is no memory for more entries, the ones that are watched
// already go on being watched. @return Whether everybody is watched who is to be.
bool __listener_prepare_events()
{
    const scoped_lock lock(g_gpio_db.lock);
    const bool fits = make_room(count_to_be_watched() + 1, __func__);
    __pollfd_init(g_poll_fds->fds[0], g_fds[0]);
    g_poll_fds->count = 1;
    for (const GList *place = g_gpio_db.items; place != nullptr; place = place->next) {
        gpio_item &item = *static_cast<gpio_item *>(place->data);
        item.is_in_poll_set = is_to_be_watched(item) && (fits || item.is_in_poll_set);
        if (item.is_in_poll_set) {
            __pollfd_init(g_poll_fds->fds[g_poll_fds->count], item.fds[irq]);
            g_poll_fds->pins[g_poll_fds->count++] = &item;
        }
    }
    g_gpio_db.is_poll_set_stale = !fits;
    return fits;
}

// What a pass leaves to be done.
struct pass_result {
    bool took_command; // whose sender is waiting
    bool asks_for_rebuild;
    bool has_more; // interrupts to call back
};

// Takes a command, if there is one, from the pipe.
pass_result take_command(const pollfd &pipe)
{
    uint32_t word = 0;
    if ((pipe.revents & POLLIN) == 0 ||
        kiv::uninterrupted([&] { return read(pipe.fd, &word, sizeof word); }) < 1) {
        return {};
    }
    const unsigned gpio = word & 0xFFFF;
    switch (static_cast<command>(word >> 16)) {
    case command::registered:
        KIV_LOG_AS(pass_routine, INF1, "Command register cbk for gpio %u\n", gpio);
        return {true, true, false};
    case command::unregistered:
        KIV_LOG_AS(pass_routine, INF1, "Command unregister cbk for gpio %u\n", gpio);
        return {true, true, false};
    default:
        KIV_LOG_AS(pass_routine, INF1, "---got 0x%x ---\n", word);
        return {true, false, false};
    }
}

bool read_count(const gpio_item &item, long long &count)
{
    if (!__user_pins_sysfs_read(item.fds[irq], count)) {
        return false;
    }
    if (count < 0 || count > INT_MAX) {
        KIV_LOG_ERRR("gpio %d claims %lld interrupts, which is not to be believed\n", item.gpio, count);
        return false;
    }
    return true;
}

// A node that wakes the listener for nothing would do so again at once, and again.
void give_up(gpio_item &item, const char *why) KIV_REQUIRES(g_gpio_db.lock)
{
    KIV_LOG_ERRR("gpio %d keeps %s and is no longer watched\n", item.gpio, why);
    item.is_given_up = true;
    g_gpio_db.is_poll_set_stale = true;
}

void count_failure(gpio_item &item) KIV_REQUIRES(g_gpio_db.lock)
{
    if (++item.failures == max_failures_in_a_row) {
        give_up(item, "reporting errors");
    }
}

void take_interrupts(gpio_item &item) KIV_REQUIRES(g_gpio_db.lock)
{
    long long count = 0;
    if (!read_count(item, count)) {
        count_failure(item);
        return;
    }
    item.failures = 0;
    item.idle_wakeups = count == 0 ? item.idle_wakeups + 1 : 0;
    KIV_LOG_AS(pass_routine, INF1, "IRQ=%x for gpio %d\n", static_cast<unsigned>(count), item.gpio);
    item.pending = static_cast<uint32_t>(std::min<long long>(item.pending + count, UINT32_MAX));
    if (item.idle_wakeups == max_idle_wakeups_in_a_row) {
        give_up(item, "waking up for nothing");
    }
}

// What is left of a large count waits for the next pass, or the next start.
void call_back(gpio_item &item)
{
    for (int left = callbacks_at_once; item.pending > 0 && left > 0 && thread_db == 0; --left) {
        --item.pending;
        item.cbk(item.gpio, item.user_data);
    }
}

// @return Whether the pin has interrupts left.
bool process_pin(gpio_item &item, short events) KIV_REQUIRES(g_gpio_db.lock)
{
    if ((events & (POLLIN | POLLPRI)) != 0) {
        take_interrupts(item);
    } else if (events != 0) {
        count_failure(item);
    }
    if (item.cbk == nullptr) { // unregistered since the poll set was made
        return false;
    }
    call_back(item);
    return item.pending > 0;
}

bool process_pins() KIV_REQUIRES(g_gpio_db.lock)
{
    bool has_more = false;
    for (std::size_t i = 1; i < g_poll_fds->count; ++i) {
        const short events = g_poll_fds->fds[i].revents;
        KIV_LOG_AS(pass_routine, INF1, "FD %d, revents 0x%x\n", static_cast<int>(i),
                   static_cast<unsigned>(events));
        has_more |= process_pin(*g_poll_fds->pins[i], events);
    }
    return has_more;
}

// One pass over what poll() has found.
pass_result __listener_process_events()
{
    const call_trace trace;
    const scoped_lock lock(g_gpio_db.lock);
    pass_result result = take_command(g_poll_fds->fds[0]);
    if (g_poll_fds->count == 1) {
        KIV_LOG_INF1("no irq fds are set\n");
    }
    result.has_more = process_pins();
    result.asks_for_rebuild |= g_gpio_db.is_poll_set_stale;
    return result;
}

// What poll() cannot do for all, it may be able to do for the pipe: whoever waits for an answer gets it.
int poll_the_pipe_only()
{
    if (!std::exchange(g_is_poll_failing, true)) {
        KIV_LOG_AS("__listener", ERRR, "Error in poll, ret=0x%x\n", static_cast<unsigned>(-1));
    }
    for (std::size_t i = 0; i < g_poll_fds->count; ++i) {
        g_poll_fds->fds[i].revents = 0;
    }
    return poll(g_poll_fds->fds.get(), 1, retry_ms);
}

// @return Whether something has happened.
bool wait_for_events(int timeout_ms)
{
    const int result = poll(g_poll_fds->fds.get(), g_poll_fds->count, timeout_ms);
    if (result >= 0) {
        g_is_poll_failing = false;
        return result > 0;
    }
    return errno != EINTR && poll_the_pipe_only() > 0;
}

bool is_poll_set_stale()
{
    const scoped_lock lock(g_gpio_db.lock);
    return g_gpio_db.is_poll_set_stale;
}

void *__listener(void *argument)
{
    const auto *const stop = static_cast<std::atomic<int> *>(argument);
    if (stop == nullptr) {
        KIV_LOG_ERRR("Null pointer as pointer to thread info\n");
        return nullptr;
    }
    t_is_listener = true;
    bool has_more = is_poll_set_stale(); // pins from before the start
    bool is_complete = !has_more || __listener_prepare_events();
    while (*stop == 0) {
        pass_result pass = {};
        if (wait_for_events(has_more ? 0 : is_complete ? forever : retry_ms) || has_more) {
            pass = __listener_process_events();
        }
        has_more = pass.has_more;
        if (pass.asks_for_rebuild || !is_complete) {
            is_complete = __listener_prepare_events();
        }
        if (pass.took_command) {
            sem_post(&g_api_sem);
        }
    }
    return nullptr;
}

bool write_word(uint32_t word, ssize_t &result)
{
    result = kiv::uninterrupted([&] { return write(g_fds[1], &word, sizeof word); });
    return result >= 1;
}

bool __listener_send_msg(uint32_t word)
{
    ssize_t result = 0;
    if (!write_word(word, result)) {
        KIV_LOG_ERRR("failed wriging to the pipe ret=%d, errno=%d!\n", static_cast<int>(result), errno);
        return false;
    }
    return true;
}

bool __listener_ping()
{
    ssize_t result = 0;
    if (!write_word(ping_word, result)) {
        KIV_LOG_ERRR("failed writing to the pipe ret=%d, errno=%d!\n", static_cast<int>(result), errno);
        return false;
    }
    return true;
}

// The listener posts once for each command, so it is this command's post.
void __listener_wait_for_completion()
{
    kiv::uninterrupted([] { return sem_wait(&g_api_sem); });
}

bool open_pipe()
{
    if (pipe2(g_fds, O_CLOEXEC) != 0) {
        KIV_LOG_AS(init_routine, ERRR, "Failed to create pipe.\n");
        return false;
    }
    KIV_LOG_AS(init_routine, INF1, "created 2 fds, read %d, write %d\n", g_fds[0], g_fds[1]);
    return true;
}

void close_pipe(const char *caller)
{
    if (const int fd = std::exchange(g_fds[0], -1); close(fd) != 0) {
        KIV_LOG_AS(caller, ERRR, "failed closing READ fd %d errno %d\n", fd, errno);
    }
    if (const int fd = std::exchange(g_fds[1], -1); fd != -1 && close(fd) != 0) {
        KIV_LOG_AS(caller, ERRR, "failed closing WRITE fd %d\n errno %d", fd, errno);
    }
}

bool init_semaphore()
{
    const int result = sem_init(&g_api_sem, 0, 0);
    if (result != 0) {
        KIV_LOG_AS(init_routine, ERRR, "Failed to create API semaphore %d, errno %d\n", result, errno);
    }
    return result == 0;
}

// The application's signal handlers are to run on the application's threads, but for those of faults, which a
// callback may commit.
void block_signals(sigset_t &former)
{
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
        sigdelset(&blocked, fault);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, &former);
}

bool create_thread()
{
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
    sigset_t former;
    block_signals(former);
    const int error = pthread_create(&g_listener, &attributes, __listener, &thread_db);
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    pthread_attr_destroy(&attributes);
    return error == 0;
}

bool start_thread()
{
    const bool started = create_thread();
    if (!started) {
        KIV_LOG_AS(init_routine, ERRR, "Failed creating listener thread!\n");
    }
    return started;
}

// Those who were watched are to be watched again by the next listener.
void drop_poll_set()
{
    const scoped_lock lock(g_gpio_db.lock);
    for (const GList *place = g_gpio_db.items; place != nullptr; place = place->next) {
        gpio_item &item = *static_cast<gpio_item *>(place->data);
        g_gpio_db.is_poll_set_stale |= item.is_in_poll_set;
        item.is_in_poll_set = false;
    }
    g_poll_fds.value = {};
}

} // namespace

bool kiv::gpio::is_listener() noexcept
{
    return t_is_listener;
}

int32_t kiv::gpio::start_listener()
{
    if (!open_pipe()) {
        return KIV_ERR_SYSTEM;
    }
    KIV_ASSERT(g_poll_fds->fds == nullptr);
    int32_t status = KIV_ERR_NO_MEMORY;
    if (make_room(1, init_routine)) {
        g_poll_fds->count = 1;
        __pollfd_init(g_poll_fds->fds[0], g_fds[0]);
        status = KIV_ERR_SYSTEM;
        if (init_semaphore()) {
            if (start_thread()) {
                return KIV_OK;
            }
            sem_destroy(&g_api_sem);
        }
    }
    g_poll_fds.value = {};
    close_pipe(init_routine);
    return status;
}

void kiv::gpio::join_listener()
{
    thread_db = 1;
    if (!__listener_ping()) {
        close(std::exchange(g_fds[1], -1)); // which wakes it as well
    }
    if (pthread_join(g_listener, nullptr) != 0) {
        KIV_LOG_AS(deinit_routine, ERRR, "failed joining listener thread 0x%lx!\n",
                   static_cast<unsigned long>(g_listener));
    }
    thread_db = 0;
    drop_poll_set();
}

void kiv::gpio::release_listener()
{
    close_pipe(deinit_routine);
    sem_destroy(&g_api_sem);
}

void kiv::gpio::forget_listener()
{
    drop_poll_set();
    release_listener();
}

bool kiv::gpio::tell_listener(command what, int gpio)
{
    const bool told =
        what == command::wake_up
            ? __listener_ping()
            : __listener_send_msg(static_cast<uint32_t>(what) << 16 | (static_cast<uint32_t>(gpio) & 0xFFFF));
    if (told) {
        __listener_wait_for_completion();
    }
    return told;
}
