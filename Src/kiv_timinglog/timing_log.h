// A timing log, and the parts of the module that work on it.
#pragma once

#include <glib.h>

#include <array>
#include <cstdio>
#include <memory>
#include <optional>

#include "common/owner.h"
#include "common/tsan.h"
#include "csv_writer.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_timinglog.h"

namespace kiv
{

/// A context with what callers need not see. Owns everything that the context points at.
struct timing_log : kiv_tl_ctx {
    timing_log() noexcept : kiv_tl_ctx() {}

    std::unique_ptr<kiv_tl_msg[]> pool;
    owner<GAsyncQueue, g_async_queue_unref> available;
    owner<GAsyncQueue, g_async_queue_unref> pending;
    std::array<char, stream_buffer_size> stream_buffer;
    owner<FILE, fclose> file;
    std::optional<csv_writer> csv;
    gint64 next_flush_us = 0; // by the monotonic clock, as is the next
    gint64 last_empty_us = 0; // when the pending queue was last found empty
    gint64 taken = 0;         // messages since then
    GList link = {};
    bool is_of_parent = false; // set in a forked child, where the log has no writer
    bool is_refusal_reported = false;
};

namespace tl
{

constexpr int pool_size = 1024;
constexpr int32_t end_of_map = -1;
constexpr int32_t start_marker = -2;
constexpr int32_t stop_marker = -3;

inline bool is_marker(int32_t event_id) noexcept
{
    return event_id == start_marker || event_id == stop_marker;
}

/// A message belongs to one party at a time: the free queue, a producer, the pending queue or the writer.
inline void push(GAsyncQueue *queue, kiv_tl_msg *msg) noexcept
{
    hand_over(msg);
    g_async_queue_push(queue, msg);
}

/// @param msg  From a pop; null if the queue was empty.
inline kiv_tl_msg *received(gpointer msg) noexcept
{
    if (msg != nullptr) {
        take_over(msg);
    }
    return static_cast<kiv_tl_msg *>(msg);
}

/// Opens the file and writes its header; the first row is queued. On failure the caller closes the file.
[[nodiscard]] bool kiv_tl_init_logfile(timing_log &log, const char *name);

/// For a log that does not come to be.
void close_file(timing_log &log);

/// Writes what waits in the stream, and reports where that fails.
void close_written_file(call_site site, timing_log &log);

/// @return False: the system has no thread.
[[nodiscard]] bool start_writer(timing_log &log);

/// Lists a log whose file has just been opened. exit() waits for the writers of listed logs, and a forked child
/// leaves them to its parent.
void list_open_log(timing_log &log, call_site site);

/// Before the file is closed.
void unlist_open_log(timing_log &log);

} // namespace tl

} // namespace kiv
