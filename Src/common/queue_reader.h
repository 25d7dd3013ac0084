// The reading end of a GLib queue.
//
// A push to a queue whose reader is blocked makes a system call to wake it up, and on one core two switches follow.
// That costs several times the rest of a message. So a reader whose messages come fast gives up the processor once
// before it blocks: the sender goes on, and its next messages find a reader that need not be woken.
#pragma once

#include <glib.h>
#include <sched.h>

#include <utility>

namespace kiv
{

class queue_reader
{
public:
    /// Takes a message that is there, or comes while other threads have their turn. @return Null: none.
    gpointer pop_soon(GAsyncQueue *queue) noexcept
    {
        gpointer message = g_async_queue_try_pop(queue);
        if (message == nullptr && is_fast()) {
            sched_yield();
            message = g_async_queue_try_pop(queue);
        }
        return message;
    }

private:
    // A thread that gives up the processor may have to wait for a busy one until its time slice ends. Messages that
    // are further apart than this would come late, so they always find a reader that is blocked.
    static constexpr gint64 fast_us = 50;

    bool is_fast() noexcept
    {
        const gint64 now = g_get_monotonic_time();
        return now - std::exchange(last_empty_us_, now) < fast_us;
    }

    gint64 last_empty_us_ = 0; // when the queue was last found empty, by the monotonic clock
};

} // namespace kiv
