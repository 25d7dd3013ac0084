// Timing logs. A message belongs to one party at a time: the free queue, a producer, the pending queue or the
// writer.

#include "zol/kiv_timinglog.h"

#include <glib.h>
#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "common/cancellation.h"
#include "common/text.h"
#include "kiv_debug/log_as.h"
#include "timing_log.h"

using kiv::call_site;
using kiv::timing_log;
using namespace kiv::tl;

namespace
{

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

// Such a label breaks the header of the file, whose format knows no quoting.
void report_labels(call_site site, const char *name, const kiv_tl_map_entry *map)
{
    for (int lane = 0; map[lane].event_id != end_of_map; ++lane) {
        if (std::strpbrk(kiv::or_empty(map[lane].label), ",\"\r\n") != nullptr) {
            KIV_LOG_AT(
                site, ERRR,
                "timing log %s: the label of lane %d (event %d) holds a comma, a quote or a line end, which "
                "readers of its file take for something else\n",
                kiv::shown(name), lane, map[lane].event_id);
        }
    }
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

void report_leftovers(call_site site, const timing_log &log)
{
    const int available = g_async_queue_length(log.available_msgs_queue);
    const int pending = g_async_queue_length(log.pending_msgs_queue);
    if (available < pool_size) {
        KIV_LOG_AT(site, ERRR, "only %d messages in available queue\n", available);
    }
    if (pending > 0) {
        KIV_LOG_AT(site, ERRR, "discarding %d messages in pending queue\n", pending);
    }
}

bool is_acceptable(call_site site, int32_t event_id, int32_t value)
{
    if (event_id == end_of_map || is_marker(event_id)) {
        KIV_LOG_AT(site, ERRR, "event id %d is taken, event skipped!\n", event_id);
        return false;
    }
    if (value != KIV_TL_PULSE && value != KIV_TL_LOW && value != KIV_TL_HIGH) {
        KIV_LOG_AT(site, ERRR, "value %d of event %d is not 0, 1 or 2, event skipped!\n", value, event_id);
        return false;
    }
    return true;
}

void refuse_in_child(call_site site, timing_log &log)
{
    if (!log.is_refusal_reported) {
        log.is_refusal_reported = true;
        KIV_LOG_AT(site, ERRR, "timing log %s is the parent's: events of a forked child are skipped!\n",
                   log.file_name);
    }
}

// The writer returns what it has written, so a message comes free.
void stop_writer(timing_log &log)
{
    kiv_tl_msg *const msg = received(g_async_queue_pop(log.available_msgs_queue));
    msg->stamp = now();
    msg->event_id = stop_marker;
    push(log.pending_msgs_queue, msg);
    g_thread_join(log.message_thread);
    log.message_thread = nullptr;
}

// In a forked child. The queues are the parent's: their locks may be held for ever.
void abandon(std::unique_ptr<timing_log> log)
{
    static_cast<void>(log->available.release());
    static_cast<void>(log->pending.release());
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
    report_labels(call_site::here(), name, map);
    if (name == nullptr) {
        KIV_LOG_ERRR("a timing log needs a name\n");
    }
    if (name == nullptr || !kiv_tl_init_logfile(*log, name)) {
        KIV_LOG_ERRR("logfile init failed\n");
        close_file(*log);
        return nullptr;
    }
    if (!KIV_HOLDS(start_writer(*log))) { // of no use without: logging to it would end the process
        KIV_LOG_ERRR("timing log %s: the system has no thread for its writer\n", name);
        close_file(*log);
        return nullptr;
    }
    KIV_LOG_PRNT("timinglog thread ready\n");
    return log.release(); // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the caller closes it
}

void kiv_tl(kiv_tl_ctx *tlc, int32_t event_id, int32_t value, const char *format, ...)
{
    g_assert(tlc && tlc->message_thread);
    if (log_of(tlc).is_of_parent) {
        return refuse_in_child(call_site::here(), log_of(tlc));
    }
    if (!is_acceptable(call_site::here(), event_id, value)) {
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
    std::unique_ptr<timing_log> log(&log_of(tlc));
    if (log->is_of_parent) {
        return abandon(std::move(log));
    }
    const kiv::cancellation_off uncancelled; // half closed, it would be neither open nor closed
    stop_writer(*log);
    report_leftovers(call_site::here(), *log);
    close_written_file(call_site::here(), *log);
    KIV_LOG_PRNT("done\n");
}
