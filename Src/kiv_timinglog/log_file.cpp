// The file of a log: opened and headed, and closed.

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "common/text.h"
#include "kiv_debug/log_as.h"
#include "timing_log.h"

namespace kiv::tl
{
namespace
{

constexpr char log_directory[] = "/var/log/zol";
constexpr char logfile_step[] = "kiv_tl_init_logfile";

bool has_directory()
{
    struct stat status = {};
    if (stat(log_directory, &status) == 0) {
        return true;
    }
    const bool was_missing = errno == ENOENT;
    if (mkdir(log_directory, 0666) == 0 || (was_missing && errno == EEXIST)) {
        return true; // another process may have made it since the look
    }
    const int error = errno;
    KIV_LOG_AS(logfile_step, ERRR, "can't create dir %s\n", log_directory);
    KIV_LOG_AS(logfile_step, ERRR, "errno %d: %s\n", error, g_strerror(error));
    return false;
}

bool write_titles(timing_log &log)
{
    bool written = std::fprintf(log.fp, "time,") > 0;
    for (kiv_tl_map_entry *entry = log.map; written && entry->event_id != end_of_map; ++entry) {
        entry->state = KIV_TL_LOW;
        entry->last_time = log.start_time;
        written = std::fprintf(log.fp, "%s,", or_empty(entry->label)) > 0;
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

bool open_file(timing_log &log, const char *name)
{
    std::snprintf(log.file_name, sizeof log.file_name, "%s/%s.csv", log_directory, name);
    log.file.reset(std::fopen(log.file_name, "we"));
    log.fp = log.file.get();
    if (log.fp == nullptr) {
        const int error = errno;
        KIV_LOG_AS(logfile_step, ERRR, "can't fopen: %s\n", log.file_name);
        KIV_LOG_AS(logfile_step, ERRR, "errno %d: %s\n", error, g_strerror(error));
        return false;
    }
    std::setvbuf(log.fp, log.stream_buffer.data(), _IOFBF, log.stream_buffer.size());
    list_open_log(log, {logfile_step, __LINE__});
    return true;
}

} // namespace

bool kiv_tl_init_logfile(timing_log &log, const char *name)
{
    if (!has_directory() || !open_file(log, name)) {
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

void close_file(timing_log &log)
{
    if (log.file != nullptr) {
        unlist_open_log(log);
        log.file.reset();
    }
}

void close_written_file(call_site site, timing_log &log)
{
    unlist_open_log(log);
    log.fp = nullptr;
    if (std::fclose(log.file.release()) != 0) {
        KIV_LOG_AT(site, ERRR, "can't close %s: errno %d; its end may be lost\n", log.file_name, errno);
    }
}

} // namespace kiv::tl
