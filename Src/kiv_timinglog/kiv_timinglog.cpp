// Timing logs. A message belongs to one party at a time: the free queue, a producer, the pending queue or the
// writer.

#include "zol/kiv_timinglog.h"

#include <glib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <memory>
#include <new>

#include "common/text.h"
#include "common/tsan.h"
#include "csv_writer.h"
#include "zol/kiv_debug.h"

namespace
{

constexpr int pool_size = 1024;
constexpr int32_t end_of_map = -1;
constexpr int32_t start_marker = -2;
constexpr int32_t stop_marker = -3;
constexpr char log_directory[] = "/var/log/zol";

struct queue_deleter {
    void operator()(GAsyncQueue *queue) const noexcept { g_async_queue_unref(queue); }
};

struct file_closer {
    void operator()(FILE *file) const noexcept { std::fclose(file); }
};

// A context with what callers need not see. Owns everything that the context points at.
struct timing_log : kiv_tl_ctx {
    timing_log() : kiv_tl_ctx() {}

    std::unique_ptr<kiv_tl_msg[]> pool;
    std::unique_ptr<GAsyncQueue, queue_deleter> available;
    std::unique_ptr<GAsyncQueue, queue_deleter> pending;
    std::unique_ptr<FILE, file_closer> file;
    std::unique_ptr<kiv::csv_writer> csv;
};

// Only this module makes contexts, and all of them are logs.
timing_log &log_of(kiv_tl_ctx *tlc) noexcept
{
    return *static_cast<timing_log *>(tlc);
}

timeval now() noexcept
{
    timeval time = {};
    gettimeofday(&time, nullptr);
    return time;
}

bool is_marker(int32_t event_id) noexcept
{
    return event_id == start_marker || event_id == stop_marker;
}

void push(GAsyncQueue *queue, kiv_tl_msg *msg) noexcept
{
    kiv::hand_over(msg);
    g_async_queue_push(queue, msg);
}

kiv_tl_msg *received(gpointer msg) noexcept
{
    if (msg != nullptr) {
        kiv::take_over(msg);
    }
    return static_cast<kiv_tl_msg *>(msg);
}

enum class row_kind { state, event };

// Every lane's level, for the first and the last row of a file.
void write_levels(timing_log &log, int32_t event_id)
{
    const kiv_tl_map_entry *entry = log.map;
    for (int32_t index = 0; entry->event_id != end_of_map; ++index, ++entry) {
        log.csv->lane_cell(kiv::t2v(index, event_id == start_marker ? KIV_TL_LOW : entry->state));
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
        log.csv->lane_cell(kiv::t2v(index, kind == row_kind::event ? msg.value : entry->state));
        matched = entry;
    }
    log.csv->empty_cells(empty);
    return matched;
}

// The time since the lane's last event, which this one now is.
void write_delta(timing_log &log, kiv_tl_map_entry &matched, const kiv_tl_msg &msg)
{
    log.csv->time_cell(kiv::since(matched.last_time, msg.stamp));
    matched.last_time = msg.stamp;
    if (msg.value != KIV_TL_PULSE) {
        matched.state = msg.value;
    }
}

void kiv_tl_log_mark(timing_log &log, const kiv_tl_msg &msg, row_kind kind)
{
    log.csv->time_cell(kiv::since(log.start_time, msg.stamp));
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
    if (is_event) {
        kiv_tl_log_mark(log, msg, row_kind::state);
    }
    kiv_tl_log_mark(log, msg, row_kind::event);
    if (is_event && msg.value == KIV_TL_PULSE) {
        kiv_tl_log_mark(log, msg, row_kind::state);
    }
}

gpointer kiv_tl_worker_thread(gpointer data)
{
    auto *const tlc = static_cast<timing_log *>(data);
    g_assert(tlc);
    bool stopped = false;
    while (!stopped) {
        kiv_tl_msg *const msg = received(g_async_queue_pop(tlc->pending_msgs_queue));
        write_rows(*tlc, *msg);
        stopped = msg->event_id == stop_marker;
        push(tlc->available_msgs_queue, msg);
    }
    tlc->csv->flush();
    return nullptr;
}

bool has_directory()
{
    struct stat status = {};
    if (stat(log_directory, &status) == 0 || mkdir(log_directory, 0666) == 0) {
        return true;
    }
    KIV_LOG_ERRR("can't create dir %s\n", log_directory);
    return false;
}

bool write_titles(timing_log &log)
{
    bool written = std::fprintf(log.fp, "time,") > 0;
    for (kiv_tl_map_entry *entry = log.map; written && entry->event_id != end_of_map; ++entry) {
        entry->state = KIV_TL_LOW;
        entry->last_time = log.start_time;
        written = std::fprintf(log.fp, "%s,", kiv::or_empty(entry->label)) > 0;
    }
    return written;
}

void queue_start_marker(timing_log &log)
{
    kiv_tl_msg *const msg = received(g_async_queue_try_pop(log.available_msgs_queue));
    g_assert(msg);
    msg->stamp = log.start_time;
    msg->event_id = start_marker;
    msg->value = KIV_TL_LOW;
    msg->note[0] = '\0';
    push(log.pending_msgs_queue, msg);
}

bool kiv_tl_init_logfile(timing_log &log, const char *name)
{
    if (!has_directory()) {
        return false;
    }
    std::snprintf(log.file_name, sizeof log.file_name, "%s/%s.csv", log_directory, name);
    log.file.reset(std::fopen(log.file_name, "we"));
    log.fp = log.file.get();
    if (log.fp == nullptr) {
        KIV_LOG_ERRR("can't fopen: %s\n", log.file_name);
        return false;
    }
    if (!write_titles(log)) {
        KIV_LOG_ERRR("fprintf failed\n");
        return false;
    }
    queue_start_marker(log);
    if (std::fprintf(log.fp, "delta since last event,") <= 0) {
        KIV_LOG_ERRR("fprintf failed\n");
        return false;
    }
    if (std::fputc('\n', log.fp) == EOF) {
        KIV_LOG_ERRR("fputc failed\n");
        return false;
    }
    KIV_LOG_PRNT("logfile %s created\n", log.file_name);
    return true;
}

std::unique_ptr<timing_log> allocate_log()
{
    std::unique_ptr<timing_log> log(new (std::nothrow) timing_log);
    if (log == nullptr) {
        return nullptr;
    }
    log->pool.reset(new (std::nothrow) kiv_tl_msg[pool_size]);
    if (log->pool == nullptr) {
        return nullptr;
    }
    log->available.reset(g_async_queue_new());
    log->pending.reset(g_async_queue_new());
    log->available_msgs_queue = log->available.get();
    log->pending_msgs_queue = log->pending.get();
    for (int i = 0; i < pool_size; ++i) {
        push(log->available_msgs_queue, &log->pool[static_cast<std::size_t>(i)]);
    }
    return log;
}

// The rows that wait in the stream are written by the close.
void close_file(timing_log &log)
{
    if (std::fclose(log.file.release()) != 0) {
        KIV_LOG_ERRR("can't close %s: errno %d; its end may be lost\n", log.file_name, errno);
    }
    log.fp = nullptr;
}

void report_leftovers(const timing_log &log)
{
    const int available = g_async_queue_length(log.available_msgs_queue);
    const int pending = g_async_queue_length(log.pending_msgs_queue);
    if (available < pool_size) {
        KIV_LOG_ERRR("only %d messages in available queue\n", available);
    }
    if (pending > 0) {
        KIV_LOG_ERRR("discarding %d messages in pending queue\n", pending);
    }
}

bool is_acceptable(int32_t event_id, int32_t value)
{
    if (event_id == end_of_map || is_marker(event_id)) {
        KIV_LOG_ERRR("event id %d is taken, event skipped!\n", event_id);
        return false;
    }
    if (value != KIV_TL_PULSE && value != KIV_TL_LOW && value != KIV_TL_HIGH) {
        KIV_LOG_ERRR("value %d of event %d is not 0, 1 or 2, event skipped!\n", value, event_id);
        return false;
    }
    return true;
}

} // namespace

kiv_tl_ctx *kiv_tl_init(const char *name, kiv_tl_map_entry *map)
{
    std::unique_ptr<timing_log> log = allocate_log();
    KIV_LOG_PRNT("initialize\n");
    g_assert(map);
    if (log == nullptr) {
        KIV_LOG_ERRR("no memory for timing log %s\n", kiv::shown(name));
        return nullptr;
    }
    log->start_time = now();
    log->map = map;
    if (name == nullptr || !kiv_tl_init_logfile(*log, name)) {
        KIV_LOG_ERRR("logfile init failed\n");
        return nullptr;
    }
    log->csv.reset(new (std::nothrow) kiv::csv_writer(log->fp, log->file_name));
    log->message_thread =
        log->csv != nullptr ? g_thread_try_new(nullptr, kiv_tl_worker_thread, log.get(), nullptr) : nullptr;
    KIV_ASSERT(log->message_thread != nullptr);
    if (log->message_thread == nullptr) { // of no use without: logging to it would end the process
        return nullptr;
    }
    KIV_LOG_PRNT("timinglog thread ready\n");
    return log.release(); // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the caller closes it
}

void kiv_tl(kiv_tl_ctx *tlc, int32_t event_id, int32_t value, const char *format, ...)
{
    g_assert(tlc && tlc->message_thread);
    if (!is_acceptable(event_id, value)) {
        return;
    }
    kiv_tl_msg *const msg = received(g_async_queue_try_pop(tlc->available_msgs_queue));
    if (msg == nullptr) {
        KIV_LOG_ERRR("no free msg buffer, msg skipped!\n");
        return;
    }
    msg->stamp = now();
    msg->event_id = event_id;
    msg->value = value;
    msg->note[0] = '\0';
    if (format != nullptr) {
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(msg->note, sizeof msg->note, format, arguments);
        va_end(arguments);
    }
    push(tlc->pending_msgs_queue, msg);
}

void kiv_tl_deinit(kiv_tl_ctx *tlc)
{
    g_assert(tlc && tlc->message_thread);
    const std::unique_ptr<timing_log> log(&log_of(tlc));
    // The writer returns what it has written, so one comes free.
    kiv_tl_msg *const msg = received(g_async_queue_pop(log->available_msgs_queue));
    msg->stamp = now();
    msg->event_id = stop_marker;
    push(log->pending_msgs_queue, msg);
    g_thread_join(log->message_thread);
    log->message_thread = nullptr;
    report_leftovers(*log);
    close_file(*log);
    KIV_LOG_PRNT("done\n");
}
