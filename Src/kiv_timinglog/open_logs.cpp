// The open logs of this process: exit() waits for their writers, and forked children leave them alone.

#include <glib.h>
#include <stdio_ext.h>

#include "common/fork_lock.h"
#include "common/intrusive_list.h"
#include "common/mutex.h"
#include "timing_log.h"

namespace kiv::tl
{
namespace
{

constexpr gint64 longest_wait_at_exit_us = 2'000'000;
constexpr gulong look_again_us = 200;

struct {
    mutex lock;
    GList *logs KIV_GUARDED_BY(lock) = nullptr;
} g_open;

// The rows in the streams' buffers are the parent's to write: the child's exit() would write them again.
void leave_to_parent() KIV_REQUIRES(g_open.lock)
{
    for (GList *place = g_open.logs; place != nullptr; place = place->next) {
        timing_log &log = *static_cast<timing_log *>(place->data);
        __fpurge(log.fp);
        log.is_of_parent = true;
    }
    g_open.logs = nullptr;
}

// A negative length says that the writer waits for a message.
bool is_written(const timing_log &log)
{
    return g_async_queue_length(log.pending_msgs_queue) < 0;
}

// Runs in exit(), after the application's own handlers and before the C library flushes the streams. The lock keeps
// the logs open. The wait needs no lock of the writer, and it is limited: a disk may hang, and other threads may
// go on logging.
[[gnu::destructor]] void wait_for_writers_at_exit()
{
    const gint64 end = g_get_monotonic_time() + longest_wait_at_exit_us;
    const scoped_lock lock(g_open.lock);
    for (const GList *place = g_open.logs; place != nullptr; place = place->next) {
        while (!is_written(*static_cast<timing_log *>(place->data)) && g_get_monotonic_time() < end) {
            g_usleep(look_again_us);
        }
    }
}

} // namespace

void list_open_log(timing_log &log, call_site site)
{
    const int error = hold_lock_across_forks<g_open, leave_to_parent>();
    static_cast<void>(KIV_HOLDS_AT(site, error == 0));
    const scoped_lock lock(g_open.lock);
    prepend(g_open.logs, log, log.link);
}

void unlist_open_log(timing_log &log)
{
    const scoped_lock lock(g_open.lock);
    g_open.logs = g_list_remove_link(g_open.logs, &log.link);
}

} // namespace kiv::tl
