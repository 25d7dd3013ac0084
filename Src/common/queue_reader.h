// The reading end of a GLib queue.
//
// A push to a queue whose reader is blocked makes a system call to wake it up, and on one core two switches follow.
// That costs several times the rest of a message. So a reader whose messages come fast gives up the processor once
// before it blocks: the sender goes on, and its next messages find a reader that need not be woken.
//
// On several cores, sender and reader meet at the queue's lock, and whoever comes second sleeps, which costs as much as
// a hundred messages. So messages that wait are taken together, but few at a time, for the lock is held meanwhile. And a
// reader that has emptied the queue of a burst leaves it to the senders for about as long as a wake-up takes.
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
        if (next_ < count_) {
            return pop_taken();
        }
        take_waiting(queue);
        if (count_ == 0) {
            const bool was_burst = std::exchange(taken_since_empty_, 0) >= burst;
            if (is_fast()) {
                give_way(was_burst);
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
    static constexpr std::size_t burst = 8; // messages without a pause
    static constexpr gint64 burst_pause_us = 10;

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
        taken_since_empty_ += count_;
    }

    bool is_fast() noexcept
    {
        const gint64 now = g_get_monotonic_time();
        return now - std::exchange(last_empty_us_, now) < fast_us;
    }

    // Other threads have their turn, on one core until they block. On several cores that turn is over at once.
    void give_way(bool is_long) const noexcept
    {
        do {
            sched_yield();
        } while (is_long && g_get_monotonic_time() - last_empty_us_ < burst_pause_us);
    }

    std::array<gpointer, 8> taken_;
    std::size_t next_ = 0; // of those taken
    std::size_t count_ = 0;
    std::size_t taken_since_empty_ = 0;
    gint64 last_empty_us_ = 0; // when the queue was last found empty, by the monotonic clock
};

} // namespace kiv
