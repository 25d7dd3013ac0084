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

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <csignal>
#include <memory>
#include <new>
#include <utility>

#include "common/call_trace.h"
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
constexpr int retry_ms = 100; // what has failed and is to be tried again
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

poll_set g_poll_fds;
int g_fds[2] = {-1, -1}; // the command pipe: the listener's end, the callers' end
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
bool make_room(std::size_t count)
{
    if (count <= g_poll_fds.room) {
        return true;
    }
    std::unique_ptr<pollfd[]> fds(new (std::nothrow) pollfd[count]());
    std::unique_ptr<gpio_item *[]> pins(new (std::nothrow) gpio_item *[count]());
    if (!fds || !pins) {
        KIV_LOG_ERRR("Failed to allocate fdset.\n");
        return false;
    }
    g_poll_fds = {std::move(fds), std::move(pins), 0, count};
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
    const bool fits = make_room(count_to_be_watched() + 1);
    __pollfd_init(g_poll_fds.fds[0], g_fds[0]);
    g_poll_fds.count = 1;
    for (const GList *place = g_gpio_db.items; place != nullptr; place = place->next) {
        gpio_item &item = *static_cast<gpio_item *>(place->data);
        item.is_in_poll_set = is_to_be_watched(item) && (fits || item.is_in_poll_set);
        if (item.is_in_poll_set) {
            __pollfd_init(g_poll_fds.fds[g_poll_fds.count], item.fds[irq]);
            g_poll_fds.pins[g_poll_fds.count++] = &item;
        }
    }
    g_gpio_db.is_poll_set_stale = !fits;
    return fits;
}

// What a pass leaves to be done.
struct pass_result {
    bool took_command; // whose sender is waiting
    bool asks_for_rebuild;
};

// Takes a command, if there is one, from the pipe.
pass_result take_command(const pollfd &pipe)
{
    uint32_t word = 0;
    if ((pipe.revents & POLLIN) == 0 ||
        kiv::uninterrupted([&] { return read(pipe.fd, &word, sizeof word); }) < 1) {
        return {false, false};
    }
    const unsigned gpio = word & 0xFFFF;
    switch (static_cast<command>(word >> 16)) {
    case command::registered:
        KIV_LOG_AS(pass_routine, INF1, "Command register cbk for gpio %u\n", gpio);
        return {true, true};
    case command::unregistered:
        KIV_LOG_AS(pass_routine, INF1, "Command unregister cbk for gpio %u\n", gpio);
        return {true, true};
    default:
        KIV_LOG_AS(pass_routine, INF1, "---got 0x%x ---\n", word);
        return {true, false};
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

// Not to hold up a stop for long, what is left of a large count is dropped then.
void call_back(const gpio_item &item, long long count)
{
    for (; count > 0 && thread_db == 0; --count) {
        item.cbk(item.gpio, item.user_data);
    }
}

// A node in error wakes the listener again at once, and again.
void count_failure(gpio_item &item) KIV_REQUIRES(g_gpio_db.lock)
{
    if (++item.failures == max_failures_in_a_row) {
        KIV_LOG_ERRR("gpio %d keeps reporting errors and is no longer watched\n", item.gpio);
        item.is_given_up = true;
        g_gpio_db.is_poll_set_stale = true;
    }
}

void process_interrupts(gpio_item &item) KIV_REQUIRES(g_gpio_db.lock)
{
    long long count = 0;
    if (!read_count(item, count)) {
        count_failure(item);
        return;
    }
    item.failures = 0;
    KIV_LOG_AS(pass_routine, INF1, "IRQ=%x for gpio %d\n", static_cast<unsigned>(count), item.gpio);
    if (item.cbk != nullptr) {
        call_back(item, count);
    }
}

void process_pins() KIV_REQUIRES(g_gpio_db.lock)
{
    for (std::size_t i = 1; i < g_poll_fds.count; ++i) {
        const short events = g_poll_fds.fds[i].revents;
        KIV_LOG_AS(pass_routine, INF1, "FD %d, revents 0x%x\n", static_cast<int>(i),
                   static_cast<unsigned>(events));
        if ((events & (POLLIN | POLLPRI)) != 0) {
            process_interrupts(*g_poll_fds.pins[i]);
        } else if (events != 0) {
            count_failure(*g_poll_fds.pins[i]);
        }
    }
}

// One pass over what poll() has found.
pass_result __listener_process_events()
{
    const call_trace trace;
    const scoped_lock lock(g_gpio_db.lock);
    pass_result result = take_command(g_poll_fds.fds[0]);
    if (g_poll_fds.count == 1) {
        KIV_LOG_INF1("no irq fds are set\n");
    }
    process_pins();
    result.asks_for_rebuild |= g_gpio_db.is_poll_set_stale;
    return result;
}

// @return Whether there is something to do.
bool wait_for_events(int timeout_ms)
{
    const int result = poll(g_poll_fds.fds.get(), g_poll_fds.count, timeout_ms);
    if (result < 0 && errno != EINTR) {
        KIV_LOG_AS("__listener", ERRR, "Error in poll, ret=0x%x\n", static_cast<unsigned>(result));
        poll(nullptr, 0, retry_ms); // it would fail again at once
    }
    return result > 0;
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
    bool is_complete = !is_poll_set_stale() || __listener_prepare_events(); // pins from before the start
    while (*stop == 0) {
        pass_result pass = {};
        if (wait_for_events(is_complete ? forever : retry_ms)) {
            pass = __listener_process_events();
        }
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

void close_pipe()
{
    if (const int fd = std::exchange(g_fds[0], -1); close(fd) != 0) {
        KIV_LOG_AS(deinit_routine, ERRR, "failed closing READ fd %d errno %d\n", fd, errno);
    }
    if (const int fd = std::exchange(g_fds[1], -1); fd != -1 && close(fd) != 0) {
        KIV_LOG_AS(deinit_routine, ERRR, "failed closing WRITE fd %d\n errno %d", fd, errno);
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

// The application's signal handlers are to run on the application's threads.
bool create_thread()
{
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    pthread_attr_t g_attr;
    if (pthread_attr_init(&g_attr) != 0) {
        return false;
    }
    pthread_attr_setdetachstate(&g_attr, PTHREAD_CREATE_JOINABLE);
    pthread_sigmask(SIG_BLOCK, &all, &former);
    const int error = pthread_create(&g_listener, &g_attr, __listener, &thread_db);
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    pthread_attr_destroy(&g_attr);
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
    g_poll_fds = {};
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
    KIV_ASSERT(g_poll_fds.fds == nullptr);
    int32_t status = KIV_ERR_NO_MEMORY;
    if (make_room(1)) {
        g_poll_fds.count = 1;
        __pollfd_init(g_poll_fds.fds[0], g_fds[0]);
        status = KIV_ERR_SYSTEM;
        if (init_semaphore()) {
            if (start_thread()) {
                return KIV_OK;
            }
            sem_destroy(&g_api_sem);
        }
    }
    g_poll_fds = {};
    close_pipe();
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
}

void kiv::gpio::release_listener()
{
    drop_poll_set();
    close_pipe();
    sem_destroy(&g_api_sem);
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
