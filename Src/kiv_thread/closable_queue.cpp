#include "closable_queue.h"

#include <atomic>

#include "common/fork_lock.h"
#include "common/mutex.h"

namespace kiv
{
namespace
{

kiv_message g_closed_mark;

// The queues that a forked child has made itself. A process that is no fork needs no list: all are its own.
struct {
    mutex lock;
    std::atomic<bool> is_in_use{false};
    GHashTable *queues KIV_GUARDED_BY(lock) = nullptr;
} g_own;

// The queues of a child that forks in its turn are not its child's. The table is not freed: that takes GLib's locks.
void disown_all_in_child() KIV_REQUIRES(g_own.lock)
{
    g_own.queues = nullptr;
    g_own.is_in_use = true;
}

} // namespace

GAsyncQueue *new_queue(call_site site)
{
    const int error = hold_lock_across_forks<g_own, disown_all_in_child>();
    static_cast<void>(KIV_HOLDS_AT(site, error == 0));
    GAsyncQueue *const queue = g_async_queue_new();
    if (g_own.is_in_use) {
        const scoped_lock lock(g_own.lock);
        g_own.queues = g_own.queues != nullptr ? g_own.queues : g_hash_table_new(nullptr, nullptr);
        g_hash_table_add(g_own.queues, queue);
    }
    return queue;
}

void release_queue(GAsyncQueue *queue)
{
    if (g_own.is_in_use) {
        const scoped_lock lock(g_own.lock);
        g_hash_table_remove(g_own.queues, queue);
    }
    g_async_queue_unref(queue);
}

bool is_of_this_process(GAsyncQueue *queue)
{
    if (!g_own.is_in_use.load(std::memory_order_relaxed)) {
        return true;
    }
    const scoped_lock lock(g_own.lock);
    return g_own.queues != nullptr && g_hash_table_contains(g_own.queues, queue) != FALSE;
}

bool is_closed(GAsyncQueue *queue) noexcept
{
    gpointer const head = g_async_queue_try_pop_unlocked(queue);
    if (head != nullptr) {
        g_async_queue_push_front_unlocked(queue, head);
    }
    return head == &g_closed_mark;
}

void close_queue(GAsyncQueue *queue) noexcept
{
    if (!is_closed(queue)) {
        g_async_queue_push_front_unlocked(queue, &g_closed_mark);
    }
}

void reopen_queue(GAsyncQueue *queue) noexcept
{
    if (is_closed(queue)) {
        g_async_queue_try_pop_unlocked(queue);
    }
}

kiv_message *take_left_over(GAsyncQueue *queue) noexcept
{
    const queue_lock lock(queue);
    gpointer head = g_async_queue_try_pop_unlocked(queue);
    if (head == &g_closed_mark) {
        head = g_async_queue_try_pop_unlocked(queue);
        g_async_queue_push_front_unlocked(queue, &g_closed_mark);
    }
    return static_cast<kiv_message *>(head);
}

} // namespace kiv
