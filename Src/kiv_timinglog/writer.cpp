// The writer of a log: one thread that turns its messages into rows.

#include <glib.h>

#include <algorithm>
#include <array>
#include <utility>

#include "common/blocked_signals.h"
#include "timing_log.h"

namespace kiv::tl
{
namespace
{

// The shortest time between two flushes. At a high rate the queue runs empty after each event, and a system call
// per event would cost more than the rows.
constexpr gint64 flush_interval_us = 10'000;

// Events come fast when the mean time between them is shorter.
constexpr gint64 fast_us = 50;

// A sleep costs as much as tens of rows, so it lasts until a quarter of the pool is used at the present rate.
constexpr gint64 longest_nap_us = 1000;
constexpr gint64 events_per_nap = pool_size / 4;

enum class row_kind { state, event };

// Every lane's level, for the first and the last row of a file.
void write_levels(timing_log &log, int32_t event_id)
{
    const kiv_tl_map_entry *entry = log.map;
    for (int32_t index = 0; entry->event_id != end_of_map; ++index, ++entry) {
        log.csv->lane_cell(t2v(index, event_id == start_marker ? KIV_TL_LOW : entry->state));
    }
}

// The cell of the event's lane; the others stay empty. @return The entry that the event is about, or null.
kiv_tl_map_entry *write_event_cells(timing_log &log, const kiv_tl_msg &msg, row_kind kind)
{
    kiv_tl_map_entry *matched = nullptr;
    kiv_tl_map_entry *entry = log.map;
    std::size_t empty = 0;
    for (int32_t index = 0; entry->event_id != end_of_map; ++index, ++entry) {
        if (entry->event_id != msg.event_id) {
            ++empty;
            continue;
        }
        log.csv->empty_cells(empty);
        empty = 0;
        log.csv->lane_cell(t2v(index, kind == row_kind::event ? msg.value : entry->state));
        matched = entry;
    }
    log.csv->empty_cells(empty);
    return matched;
}

// The time since the lane's last event, which this one now is.
void write_delta(timing_log &log, kiv_tl_map_entry &matched, const kiv_tl_msg &msg)
{
    log.csv->time_cell(since(matched.last_time, msg.stamp));
    matched.last_time = msg.stamp;
    if (msg.value != KIV_TL_PULSE) {
        matched.state = msg.value;
    }
}

void kiv_tl_log_mark(timing_log &log, const kiv_tl_msg &msg, row_kind kind)
{
    log.csv->begin_row();
    kiv_tl_map_entry *matched = nullptr;
    if (is_marker(msg.event_id)) {
        write_levels(log, msg.event_id);
    } else {
        matched = write_event_cells(log, msg, kind);
    }
    if (kind == row_kind::event && matched != nullptr) {
        write_delta(log, *matched, msg);
    } else {
        log.csv->empty_cells(1);
    }
    log.csv->end_row();
}

void write_rows(timing_log &log, const kiv_tl_msg &msg)
{
    const bool is_event = !is_marker(msg.event_id);
    log.csv->begin_event(since(log.start_time, msg.stamp));
    if (is_event) {
        kiv_tl_log_mark(log, msg, row_kind::state);
    }
    kiv_tl_log_mark(log, msg, row_kind::event);
    if (is_event && msg.value == KIV_TL_PULSE) {
        kiv_tl_log_mark(log, msg, row_kind::state);
    }
    log.csv->end_event(msg.stamp);
}

// A producer that finds the writer waiting at the queue has to wake it up, which costs more than all the rest. So
// while events come fast, the writer sleeps instead. @return The time for that, or 0: they do not come fast.
gint64 nap_after(gint64 elapsed_us, gint64 taken) noexcept
{
    return elapsed_us < fast_us * taken ? std::min(events_per_nap * elapsed_us / taken, longest_nap_us) : 0;
}

gpointer pop_after_nap(const timing_log &log, gint64 nap_us)
{
    g_usleep(static_cast<gulong>(nap_us));
    return g_async_queue_try_pop(log.pending_msgs_queue);
}

// The queue is empty. Flushes at once if the interval is over; else waits for the rest of it, or for a message.
gpointer flush_or_pop(timing_log &log)
{
    const gint64 now = g_get_monotonic_time();
    const gint64 left = log.next_flush_us - now;
    const gint64 nap_us = nap_after(now - std::exchange(log.last_empty_us, now), std::exchange(log.taken, 0));
    gpointer msg = left > 0 && nap_us > 0 ? pop_after_nap(log, nap_us) : nullptr;
    if (msg == nullptr && left > 0) {
        msg = g_async_queue_timeout_pop(log.pending_msgs_queue, static_cast<guint64>(left));
    }
    if (msg == nullptr) {
        log.csv->flush();
        log.next_flush_us = g_get_monotonic_time() + flush_interval_us;
    }
    return msg;
}

// The queue is empty. @return The next message.
gpointer wait_for_message(timing_log &log)
{
    gpointer const msg = log.csv->is_flushed() ? nullptr : flush_or_pop(log);
    return msg != nullptr ? msg : g_async_queue_pop(log.pending_msgs_queue);
}

// Messages that are taken together: the writer and the producers meet at the queues' locks less often.
class batch
{
public:
    // Takes the messages that wait, up to a stop, or the next one.
    void take(timing_log &log)
    {
        count_ = 0;
        g_async_queue_lock(log.pending_msgs_queue);
        while (count_ < messages_.size() && !ends_with_stop() &&
               add(g_async_queue_try_pop_unlocked(log.pending_msgs_queue))) {
        }
        g_async_queue_unlock(log.pending_msgs_queue);
        if (count_ == 0) {
            add(wait_for_message(log));
        }
        log.taken += static_cast<gint64>(count_);
    }

    void write(timing_log &log) const
    {
        for (std::size_t i = 0; i < count_; ++i) {
            write_rows(log, *messages_[i]);
        }
    }

    [[nodiscard]] bool ends_with_stop() const
    {
        return count_ > 0 && messages_[count_ - 1]->event_id == stop_marker;
    }

    void give_back(const timing_log &log) const
    {
        g_async_queue_lock(log.available_msgs_queue);
        for (std::size_t i = 0; i < count_; ++i) {
            hand_over(messages_[i]);
            g_async_queue_push_unlocked(log.available_msgs_queue, messages_[i]);
        }
        g_async_queue_unlock(log.available_msgs_queue);
    }

private:
    bool add(gpointer msg)
    {
        if (msg != nullptr) {
            messages_[count_++] = received(msg);
        }
        return msg != nullptr;
    }

    std::array<kiv_tl_msg *, 256> messages_ = {};
    std::size_t count_ = 0;
};

gpointer kiv_tl_worker_thread(gpointer data)
{
    auto *const tlc = static_cast<timing_log *>(data);
    g_assert(tlc);
    batch taken;
    bool stopped = false;
    while (!stopped) {
        taken.take(*tlc);
        taken.write(*tlc);
        stopped = taken.ends_with_stop();
        taken.give_back(*tlc);
    }
    tlc->csv->flush();
    return nullptr;
}

} // namespace

bool start_writer(timing_log &log)
{
    log.csv.emplace(log.fp, log.file_name);
    const signals_blocked without_signals;
    log.message_thread = g_thread_try_new("kiv_tl", kiv_tl_worker_thread, &log, nullptr);
    return log.message_thread != nullptr;
}

} // namespace kiv::tl
