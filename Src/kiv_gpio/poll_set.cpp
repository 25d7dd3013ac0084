// The listener's poll set.

#include "poll_set.h"

#include <algorithm>
#include <cinttypes>
#include <climits>
#include <new>
#include <utility>

#include "command_pipe.h"
#include "common/poll_time.h"
#include "kiv_debug/log_as.h"

using kiv::scoped_lock;
using namespace kiv::gpio;

constinit kiv::immortal<poll_set> kiv::gpio::g_poll_fds;

namespace
{

constexpr int forever = -1;

// Made by a registration, holding the table's mutex. The listener may be polling the other set meanwhile, so
// it takes this one over when it rebuilds.
constinit kiv::immortal<poll_set> g_larger_poll_fds;

void __pollfd_init(pollfd &entry, int fd)
{
    KIV_LOG_INF1("p_pollfd=0x%" PRIxPTR ", fd=%d\n", reinterpret_cast<uintptr_t>(&entry), fd);
    entry.fd = fd;
    entry.events = POLLIN | POLLPRI | POLLERR | POLLHUP;
}

void replace(poll_set &set, poll_set &&with)
{
    const scoped_lock no_fork(g_gpio_db.fork_lock);
    set = std::move(with);
}

// @return False when there is no memory; the set is as before then.
bool replace_by_empty(poll_set &set, std::size_t pins)
{
    const std::size_t capacity = pins + 1;
    std::unique_ptr<pollfd[]> fds(new (std::nothrow) pollfd[capacity]());
    std::unique_ptr<gpio_item *[]> items(new (std::nothrow) gpio_item *[capacity]());
    if (!fds || !items) {
        return false;
    }
    replace(set, {std::move(fds), std::move(items), capacity, 0});
    return true;
}

void add_to_poll_set(int fd, gpio_item *pin)
{
    const std::size_t i = g_poll_fds->count++;
    __pollfd_init(g_poll_fds->fds[i], fd);
    g_poll_fds->pins[i] = pin;
}

} // namespace

void __listener_prepare_events()
{
    if (g_larger_poll_fds->fds) {
        replace(g_poll_fds.value, std::move(g_larger_poll_fds.value));
    }
    g_poll_fds->count = 0;
    add_to_poll_set(command_fd(), nullptr);
    for (const GList *place = g_gpio_db.items; place != nullptr; place = place->next) {
        auto *const item = static_cast<gpio_item *>(place->data);
        if (item->cbk != nullptr) {
            add_to_poll_set(item->resting_until == clock::time_point() ? item->fds[irq] : -1, item);
        }
    }
    g_gpio_db.is_poll_set_stale = false;
}

bool kiv::gpio::init_poll_set(call_site site)
{
    static_cast<void>(KIV_HOLDS_AT(site, g_poll_fds->fds == nullptr));
    if (!replace_by_empty(g_poll_fds.value, g_gpio_db.watched)) {
        KIV_LOG_AT(site, ERRR, "Failed to allocate fdset.\n");
        return false;
    }
    add_to_poll_set(command_fd(), nullptr);
    return true;
}

void kiv::gpio::discard_poll_set()
{
    replace(g_poll_fds.value, {});
    replace(g_larger_poll_fds.value, {});
}

bool kiv::gpio::reserve_poll_set(std::size_t pins)
{
    return pins < std::max(g_poll_fds->capacity, g_larger_poll_fds->capacity) ||
           replace_by_empty(g_larger_poll_fds.value, pins);
}

// poll() ignores a negative descriptor.
void kiv::gpio::rest(gpio_item &item, pollfd &entry)
{
    entry.fd = -1;
    item.resting_until = clock::now() + retry_ms;
}

int kiv::gpio::end_rests()
{
    int soonest = INT_MAX;
    for (std::size_t i = 1; i < g_poll_fds->count; ++i) {
        gpio_item &item = *g_poll_fds->pins[i];
        pollfd &entry = g_poll_fds->fds[i];
        if (entry.fd != -1) {
            continue;
        }
        const int left_ms = kiv::poll_time(item.resting_until - clock::now());
        if (left_ms > 0) {
            soonest = std::min(soonest, left_ms);
        } else {
            entry.fd = item.fds[irq];
            item.resting_until = {};
            soonest = item.is_failing ? 0 : soonest; // it is read even without an event
        }
    }
    return soonest == INT_MAX ? forever : soonest;
}
