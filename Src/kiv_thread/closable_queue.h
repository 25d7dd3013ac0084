// A worker's message queue: a GLib queue that can be closed.
//
// A closed queue has a mark at its head, and senders add no more messages. They check the mark under the queue's
// own lock, the one that they push under. So each message is either queued before the close, or refused.
//
// A forked child must not use the queues of its parent. Another thread may have held a lock at the fork, and in the
// child nobody would release it.
#pragma once

#include <glib.h>

#include "common/tsan.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_thread.h"

namespace kiv
{

class queue_lock
{
public:
    explicit queue_lock(GAsyncQueue *queue) noexcept : queue_(queue)
    {
        g_async_queue_lock(queue_);
        take_over(queue_);
    }
    ~queue_lock()
    {
        hand_over(queue_);
        g_async_queue_unlock(queue_);
    }
    queue_lock(const queue_lock &) = delete;
    queue_lock &operator=(const queue_lock &) = delete;

private:
    GAsyncQueue *queue_;
};

/// @return A queue that is open. It ends with release_queue().
GAsyncQueue *new_queue(call_site site);
void release_queue(GAsyncQueue *queue);

/// False for the queues that a forked child has from its parent.
[[nodiscard]] bool is_of_this_process(GAsyncQueue *queue);

/// The caller holds the queue's lock.
[[nodiscard]] bool is_closed(GAsyncQueue *queue) noexcept;
void close_queue(GAsyncQueue *queue) noexcept;
void reopen_queue(GAsyncQueue *queue) noexcept;

/// Takes a message out of a queue that nobody else reads, open or closed. @return Null: there is none.
kiv_message *take_left_over(GAsyncQueue *queue) noexcept;

} // namespace kiv
