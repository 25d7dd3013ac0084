/**
 * @file kiv_timinglog.h
 * @brief Timing logs: when events of an application happened, as CSV files for timing diagrams.
 *
 * A log has a lane per event, a column in its file "/var/log/zol/<name>.csv". The lane of the map's entry i
 * is drawn between 2i (low) and 2i + 1 (high). A thread of the log's own writes the file; any number of
 * threads may log, and never wait: a call costs a queue pop, a look at the clock, the formatting of its note,
 * and a queue push. Any number of logs may be open.
 *
 * Rows reach the file when the writer has nothing left to write, at most every 10 ms; under load, 64 KiB at a
 * time. So a killed process loses some 10 ms of rows at most while its writer keeps up. exit() writes what was
 * logged before, for which it waits up to 2 seconds; the stop row is written by kiv_tl_deinit() alone. A write that
 * fails, as on a full disk, is reported; the rows since the one before it are lost, and the log goes on.
 *
 * The times in a file count from the start of its log. The file's time of modification is that of its last row,
 * to the microsecond. So zol_timing(1) knows when a log began, and draws several on one axis. A log that was
 * killed or ended by exit() may have a later time; then the system has set it.
 *
 * A log is the process's that opened it. In a forked child kiv_tl() skips events, with one ERRR line, and
 * kiv_tl_deinit() leaves the file as it is.
 *
 * The writer is a thread "kiv_tl" that takes no signals. Threads and queues are GLib's, which ends the process
 * when it has no memory for one of its own records: kiv_tl_init() takes some. What this module itself allocates
 * is checked: kiv_tl_init() then returns null.
 *
 * @code
 *     static kiv_tl_map_entry lanes[] = {
 *         {.event_id = 1, .label = "rx"}, {.event_id = 2, .label = "tx"}, {.event_id = -1}};
 *
 *     kiv_tl_ctx *log = kiv_tl_init("radio", lanes);
 *     if (log != NULL) {
 *         kiv_tl(log, 1, KIV_TL_HIGH, NULL);
 *         kiv_tl(log, 2, KIV_TL_PULSE, "packet %d", number);
 *         kiv_tl(log, 1, KIV_TL_LOW, NULL);
 *         kiv_tl_deinit(log);
 *     }
 * @endcode
 */
#ifndef ZOL_KIV_TIMINGLOG_H
#define ZOL_KIV_TIMINGLOG_H

#include <stdint.h>
#include <stdio.h>
#include <sys/time.h>

#include "zol/kiv_export.h"

KIV_EXTERN_C_BEGIN

struct _GThread;
struct _GAsyncQueue;

/** The values of kiv_tl(): the effect of an event on its lane. */
#define KIV_TL_PULSE 0 /**< shows high for an instant; the level stays */
#define KIV_TL_LOW   1 /**< low from now on */
#define KIV_TL_HIGH  2 /**< high from now on */

/** A lane. The map is an array of these, ended by an event_id of -1; it must stay until kiv_tl_deinit()
 * returns. */
typedef struct kiv_tl_map_entry {
    int32_t event_id;         /**< the caller's, unique; -1, -2 and -3 are taken */
    const char *label;        /**< title of the column; a comma, a quote or a line end in it breaks the file's
                                   header, and is reported */
    int32_t state;            /**< the log's: the lane's level, 1 low or 2 high */
    struct timeval last_time; /**< the log's: when its last event was */
} kiv_tl_map_entry;

/** An event on its way to the writer. */
typedef struct kiv_tl_msg {
    int32_t event_id;     /**< which lane */
    int32_t value;        /**< what it does there */
    struct timeval stamp; /**< when it was logged */
    char note[128];       /**< travels with the event; not written to the file */
} kiv_tl_msg;

/** A log. All of it is the module's. */
typedef struct kiv_tl_ctx {
    FILE *fp;                                  /**< the file */
    struct _GThread *message_thread;           /**< the writer */
    struct _GAsyncQueue *available_msgs_queue; /**< records that are free */
    struct _GAsyncQueue *pending_msgs_queue;   /**< records to be written */
    kiv_tl_map_entry *map;                     /**< the caller's lanes */
    char file_name[128];                       /**< path of the file */
    struct timeval start_time;                 /**< the times in the file count from here */
} kiv_tl_ctx;

/**
 * Opens a log: replaces its file, writes the header and starts the writer. All lanes are low.
 * @param name  The file's name without directory and extension.
 * @param map   Not null: that ends the process, as a mistake in the program.
 * @return The log, or null when its file or its writer cannot be had; ERRR lines say which.
 */
KIV_API kiv_tl_ctx *kiv_tl_init(const char *name, kiv_tl_map_entry *map);

/**
 * Logs an event. Never blocks: with 1024 events waiting to be written, this one is dropped, with an ERRR
 * line.
 * @param ctx       An open log: anything else ends the process.
 * @param event_id  One of the map's; another makes rows without cells. -1, -2 and -3 are refused with an ERRR
 *                  line.
 * @param value     KIV_TL_PULSE, KIV_TL_LOW or KIV_TL_HIGH; others are refused with an ERRR line.
 * @param format    A printf-style note of at most 127 characters, or null.
 */
KIV_API void kiv_tl(kiv_tl_ctx *ctx, int32_t event_id, int32_t value, const char *format, ...)
    KIV_PRINTF_LIKE(4, 5);

/** Closes a log, after all that was logged is written. No other thread logs to it any more. A file that could
 * not be written in whole has been reported by an ERRR line. */
KIV_API void kiv_tl_deinit(kiv_tl_ctx *ctx);

KIV_EXTERN_C_END

#endif
