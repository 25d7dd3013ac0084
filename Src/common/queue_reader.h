// The reading end of a GLib queue.
//
// A push to a queue whose reader is blocked makes a system call to wake it up, and on one core two switches follow.
// That costs several times the rest of a message. So a reader whose messages come fast gives up the processor once
// before it blocks: the sender goes on, and its next messages find a reader that need not be woken.
//
// Messages that wait are taken together, so that reader and senders meet at the queue's lock less often.
#pragma once

#include <glib.h>
#include <sched.h>

#include <array>
#include <cstddef>
#include <utility>

namespace kiv
{

class queue_reader
{
public:
    /// Takes a message that is there, or comes while other threads have their turn. @return Null: none.
    gpointer pop_soon(GAsyncQueue *queue) noexcept
    {
        if (next_ == count_) {
            take_waiting(queue);
            if (count_ == 0 && is_fast()) {
                sched_yield();
                take_waiting(queue);
            }
        }
        return pop_taken();
    }

    /// @return A message that is no longer in the queue and has not been popped, or null: none.
    gpointer pop_taken() noexcept { return next_ < count_ ? taken_[next_++] : nullptr; }

private:
    // A thread that gives up the processor may have to wait for a busy one until its time slice ends. Messages that
    // are further apart than this would come late, so they always find a reader that is blocked.
    static constexpr gint64 fast_us = 50;

    void take_waiting(GAsyncQueue *queue) noexcept
    {
        next_ = count_ = 0;
        g_async_queue_lock(queue);
        while (count_ < taken_.size()) {
            gpointer const message = g_async_queue_try_pop_unlocked(queue);
            if (message == nullptr) {
                break;
            }
            taken_[count_++] = message;
        }
        g_async_queue_unlock(queue);
    }

    bool is_fast() noexcept
    {
        const gint64 now = g_get_monotonic_time();
        return now - std::exchange(last_empty_us_, now) < fast_us;
    }

    std::array<gpointer, 32> taken_;
    std::size_t next_ = 0; // of those taken
    std::size_t count_ = 0;
    gint64 last_empty_us_ = 0; // when the queue was last found empty, by the monotonic clock
};

} // namespace kiv
