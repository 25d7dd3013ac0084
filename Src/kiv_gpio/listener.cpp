// The listener: one thread that waits for commands and for the interrupts of all pins with callbacks.
//
// A command is a word in a pipe. Its sender waits until the listener has finished the pass that it woke and
// has brought the poll set up to date. So a pin that is being freed has left the set before its descriptors
// are closed, and no poll() ever sees a number that has become somebody else's.

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <utility>

#include "command_pipe.h"
#include "common/blocked_signals.h"
#include "gpio.h"
#include "kiv_debug/call_trace.h"
#include "kiv_debug/log_as.h"
#include "poll_set.h"
#include "zol/kiv_status.h"

using kiv::call_site;
using kiv::call_trace;
using kiv::scoped_lock;
using namespace kiv::gpio;

namespace
{

constexpr int callbacks_at_once = 256; // per pin and pass, so that the others get their turn
constexpr int most_empty_wakeups = 8;  // in a row, within the time of a back-off

bool g_is_poll_failing;      // reported once
std::atomic<bool> g_is_lost; // the listener has ended by itself
std::atomic<int> thread_db;  // the stop flag
pthread_t g_listener;

thread_local bool t_is_listener;
thread_local bool t_is_orphan; // the copy of the listener in a child that was forked by a callback

bool is_to_end() noexcept
{
    return thread_db != 0 || t_is_orphan;
}

// Takes a command, if there is one, from the pipe. @return True when its sender is waiting.
bool take_command(call_site site)
{
    uint32_t word = 0;
    if ((g_poll_fds->fds[0].revents & POLLIN) == 0 || !read_command(word)) {
        return false;
    }
    const unsigned gpio = word & 0xFFFF;
    switch (static_cast<command>(word >> 16)) {
    case command::registered:
        KIV_LOG_AT(site, INF1, "Command register cbk for gpio %u\n", gpio);
        break;
    case command::unregistered:
        KIV_LOG_AT(site, INF1, "Command unregister cbk for gpio %u\n", gpio);
        break;
    default:
        KIV_LOG_AT(site, INF1, "---got 0x%x ---\n", word);
    }
    return true;
}

void back_off(call_site site, gpio_item &item, pollfd &entry)
{
    if (!std::exchange(item.is_failing, true)) {
        KIV_LOG_AT(site, PRNT, "gpio %d is tried again every %d ms\n", item.gpio,
                   static_cast<int>(retry_ms.count()));
    }
    rest(item, entry);
}

void recover(call_site site, gpio_item &item)
{
    if (std::exchange(item.is_failing, false)) {
        KIV_LOG_AT(site, PRNT, "gpio %d works again\n", item.gpio);
    }
}

bool read_count(call_site site, gpio_item &item, long long &count)
{
    if (!item.kind->take_interrupts(item, count, !item.is_failing)) {
        return false;
    }
    const bool is_possible = count >= 0 && count <= INT_MAX;
    if (!is_possible && !item.is_failing) {
        KIV_LOG_AT(site, ERRR, "gpio %d claims an impossible count of %lld interrupts\n", item.gpio, count);
    }
    return is_possible;
}

// An attribute of an ordinary sysfs is readable at all times and reports interrupts by POLLPRI: POLLIN is no
// use there. A node that claims interrupts but has none is left alone for a while.
void count_empty_wakeup(gpio_item &item, pollfd &entry)
{
    if (const clock::time_point now = clock::now(); now - item.empty_since > retry_ms) {
        item.empty_since = now;
        item.empty_wakeups = 0;
    }
    if (++item.empty_wakeups < most_empty_wakeups) {
        return;
    }
    item.empty_wakeups = 0;
    if ((entry.revents & POLLPRI) != 0) {
        rest(item, entry);
    } else {
        entry.events &= static_cast<short>(~POLLIN);
    }
}

void take_interrupts(call_site site, gpio_item &item, pollfd &entry)
{
    long long count = 0;
    if (!read_count(site, item, count)) {
        back_off(site, item, entry);
        return;
    }
    KIV_LOG_AT(site, INF1, "IRQ=%x for gpio %d\n", static_cast<unsigned>(count), item.gpio);
    recover(site, item);
    item.pending += static_cast<std::uint64_t>(count);
    if (count == 0) {
        count_empty_wakeup(item, entry);
    } else {
        item.empty_wakeups = 0;
    }
}

// A pin that has failed is read when its back-off is over, as nothing else tells that it has recovered.
void look_at_node(call_site site, gpio_item &item, pollfd &entry)
{
    const bool is_retry = item.is_failing && entry.fd != -1 && entry.revents == 0;
    if (is_retry || (entry.revents & (POLLIN | POLLPRI)) != 0) {
        take_interrupts(site, item, entry);
    } else if (entry.revents != 0) {
        if (!item.is_failing) {
            KIV_LOG_AT(site, ERRR, "gpio %d reports an error, revents 0x%x\n", item.gpio,
                       static_cast<unsigned>(entry.revents));
        }
        back_off(site, item, entry);
    }
}

// The rest of a large count waits for the next pass, or the next start.
void call_back(gpio_item &item)
{
    for (int left = callbacks_at_once; item.pending > 0 && left > 0 && !is_to_end(); --left) {
        --item.pending;
        item.cbk(item.gpio, item.user_data);
    }
}

// @return True when there are interrupts left to call back.
bool process_pins(call_site site) KIV_REQUIRES(g_gpio_db.lock)
{
    bool has_more = false;
    for (std::size_t i = 1; !is_to_end() && i < g_poll_fds->count; ++i) {
        gpio_item &item = *g_poll_fds->pins[i];
        pollfd &entry = g_poll_fds->fds[i];
        KIV_LOG_AT(site, INF1, "FD %d, revents 0x%x\n", static_cast<int>(i),
                   static_cast<unsigned>(entry.revents));
        if (item.cbk != nullptr) { // or it was unregistered since the poll set was made
            look_at_node(site, item, entry);
            call_back(item);
            has_more |= item.pending > 0;
        }
    }
    return has_more;
}

// The work that a pass leaves behind.
struct pass_result {
    bool took_command; // its sender is waiting
    bool has_more;     // interrupts to call back
};

// One pass over the events that poll() has found.
pass_result __listener_process_events()
{
    const call_site site = call_site::here();
    const call_trace trace;
    const scoped_lock lock(g_gpio_db.lock);
    const bool took_command = take_command(site);
    if (g_poll_fds->count == 1) {
        KIV_LOG_INF1("no irq fds are set\n");
    }
    return {took_command, process_pins(site)};
}

// @return The longest time that poll() may wait, in ms.
int prepare_to_wait()
{
    const scoped_lock lock(g_gpio_db.lock);
    if (g_gpio_db.is_poll_set_stale ||
        g_poll_fds->count != g_gpio_db.watched + 1) { // pins from before the start
        __listener_prepare_events();
    }
    return end_rests();
}

// While poll() fails, commands are looked for now and then, so that their senders get an answer.
void pause_polling(call_site site)
{
    if (!std::exchange(g_is_poll_failing, true)) {
        KIV_LOG_AT(site, ERRR, "Error in poll, ret=0x%x\n", static_cast<unsigned>(-1));
    }
    g_usleep(static_cast<gulong>(std::chrono::microseconds(retry_ms).count()));
    for (std::size_t i = 0; i < g_poll_fds->count; ++i) {
        g_poll_fds->fds[i].revents = i == 0 ? POLLIN : 0;
    }
}

// No lock is held here, so this is where the stop may cancel the thread.
void wait_for_events(call_site site, int timeout_ms)
{
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    const long result = TEMP_FAILURE_RETRY(poll(g_poll_fds->fds.get(), g_poll_fds->count, timeout_ms));
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    if (result < 0) {
        pause_polling(site);
    } else {
        g_is_poll_failing = false;
    }
}

// Releases the caller that may be waiting for an answer.
void report_lost_pipe(call_site site)
{
    KIV_LOG_AT(site, ERRR, "The command pipe was closed, revents 0x%x: no more callbacks until a restart\n",
               static_cast<unsigned>(g_poll_fds->fds[0].revents));
    g_is_lost = true;
    answer();
}

void *__listener(void *stop_flag)
{
    if (stop_flag == nullptr) {
        KIV_LOG_ERRR("Null pointer as pointer to thread info\n");
        return nullptr;
    }
    t_is_listener = true;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_setname_np(pthread_self(), "kiv_gpio");
    pass_result pass = {false, g_gpio_db.watched != 0}; // interrupts may be left from before the start
    for (;;) {
        const int timeout_ms = prepare_to_wait();
        if (pass.took_command) {
            answer();
        }
        wait_for_events(call_site::here(), pass.has_more ? 0 : timeout_ms);
        if (is_command_pipe_gone(g_poll_fds->fds[0].revents)) {
            report_lost_pipe(call_site::here());
            return nullptr;
        }
        pass = __listener_process_events();
        if (is_to_end()) {
            return nullptr;
        }
    }
}

bool start_thread(call_site site)
{
    const kiv::signals_blocked blocked;
    thread_db = 0;
    g_is_lost = false;
    g_is_poll_failing = false;
    pthread_attr_t attributes;
    bool is_started = pthread_attr_init(&attributes) == 0;
    if (is_started) {
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
        is_started = pthread_create(&g_listener, &attributes, __listener, &thread_db) == 0;
        pthread_attr_destroy(&attributes);
    }
    if (!is_started) {
        KIV_LOG_AT(site, ERRR, "Failed creating listener thread!\n");
        destroy_answers();
    }
    return is_started;
}

} // namespace

bool kiv::gpio::is_listener() noexcept
{
    return t_is_listener;
}

bool kiv::gpio::is_listener_lost() noexcept
{
    return g_is_lost;
}

int32_t kiv::gpio::start_listener(call_site site)
{
    if (!open_command_pipe(site)) {
        return KIV_ERR_SYSTEM;
    }
    int32_t status = KIV_ERR_NO_MEMORY;
    if (init_poll_set(site)) {
        if (init_answers(site) && start_thread(site)) {
            return KIV_OK;
        }
        status = KIV_ERR_SYSTEM;
        discard_poll_set();
    }
    close_command_pipe(site);
    return status;
}

// A listener that cannot be told is cancelled, which it allows only while it waits.
void kiv::gpio::join_listener(call_site site)
{
    thread_db = 1;
    if (!g_is_lost && !__listener_ping()) {
        pthread_cancel(g_listener);
    }
    if (pthread_join(g_listener, nullptr) != 0) {
        KIV_LOG_AT(site, ERRR, "failed joining listener thread 0x%lx!\n",
                   static_cast<unsigned long>(g_listener));
    }
    thread_db = 0;
    discard_poll_set();
}

void kiv::gpio::release_listener(call_site site)
{
    close_command_pipe(site);
    destroy_answers();
}

// A callback that forked goes on in the child, on a copy of the listener that holds the table's mutex. The
// copy ends when the callback returns, and needs its poll set until then.
void kiv::gpio::forget_listener()
{
    abandon_command_pipe();
    t_is_orphan = t_is_listener;
    g_is_lost = false;
    if (!t_is_orphan) {
        discard_poll_set();
    }
}

int32_t kiv::gpio::tell_listener(command what, int gpio)
{
    const bool is_told =
        what == command::wake_up
            ? __listener_ping()
            : __listener_send_msg(static_cast<uint32_t>(what) << 16 | (static_cast<uint32_t>(gpio) & 0xFFFF));
    if (is_told) {
        __listener_wait_for_completion();
    }
    return g_is_lost ? KIV_ERR_STATE : is_told ? KIV_OK : KIV_ERR_SYSTEM;
}
