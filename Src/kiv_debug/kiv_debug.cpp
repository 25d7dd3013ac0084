#include "zol/kiv_debug.h"

#include <pthread.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "call_trace.h"
#include "common/cancellation.h"
#include "common/mutex.h"
#include "line_start.h"
#include "log_as.h"
#include "zol/kiv_config.h"
#include "zol/kiv_status.h"

uint32_t g_debugLevel = 1;

namespace
{

constexpr int error_level = 1;

constexpr std::time_t not_yet = -1;

// The second of the first message. One word, so that threads racing for the first message settle it without
// the lock.
std::atomic<std::time_t> g_start_tp{not_yet};

// Makes the writes of one message indivisible. Innermost of all locks: nothing else is taken while it is
// held.
kiv::mutex g_printLock;

struct elapsed_time {
    int seconds;
    int milliseconds; // within the wall-clock second: the start's own fraction is not taken off
};

elapsed_time elapsed_since_first_message() noexcept
{
    timeval now{};
    gettimeofday(&now, nullptr);
    std::time_t start = g_start_tp.load(std::memory_order_relaxed);
    if (start == not_yet &&
        g_start_tp.compare_exchange_strong(start, now.tv_sec, std::memory_order_relaxed)) {
        start = now.tv_sec;
    }
    return {static_cast<int>(now.tv_sec - start), static_cast<int>(now.tv_usec / 1000)};
}

void lock_log() noexcept KIV_ACQUIRE(g_printLock)
{
    g_printLock.lock();
}

void unlock_log() noexcept KIV_RELEASE(g_printLock)
{
    g_printLock.unlock();
}

// A fork never copies a lock that another thread holds. Handlers that are registered first lock last, so that
// the lock is the innermost in a fork too.
__attribute__((constructor)) void register_fork_handlers() noexcept
{
    pthread_atfork(lock_log, unlock_log, unlock_log);
}

// @param format  The rest of the line.
KIV_PRINTF_LIKE(3, 0)
void write_message(FILE *stream, const kiv::line_start &before, const char *format,
                   va_list arguments) noexcept KIV_REQUIRES(g_printLock)
{
    flockfile(stream); // once for both
    fwrite_unlocked(before.text().data(), 1, before.text().size(), stream);
    if (*format != '\0') {
        va_list own;
        va_copy(own, arguments);
        std::vfprintf(stream, format, own);
        va_end(own);
    }
    funlockfile(stream);
}

KIV_PRINTF_LIKE(3, 0)
void write_to_streams(std::uint32_t level, const kiv::line_start &before, const char *format,
                      va_list arguments) noexcept
{
    const kiv::cancellation_off uncancelled;
    const kiv::scoped_lock lock(g_printLock);
    if (level <= __atomic_load_n(&g_debugLevel, __ATOMIC_RELAXED)) {
        write_message(stdout, before, format, arguments);
    }
    if (static_cast<int>(level) <= error_level && stderr != nullptr) {
        write_message(stderr, before, format, arguments);
    }
}

// @param function  Null: the text may begin with the prefix of the level.
KIV_PRINTF_LIKE(4, 0)
void write_line(std::uint32_t level, const char *function, int line, const char *text,
                va_list &arguments) noexcept
{
    const int saved_errno = errno;
    const elapsed_time elapsed = elapsed_since_first_message();
    kiv::line_start start(elapsed.seconds, elapsed.milliseconds);
    if (stdout == nullptr) {
        return;
    }
    if (function != nullptr) {
        start.add_prefix(level, function, line);
    } else {
        text = start.take_prefix(level, text, arguments);
    }
    const char *const rest = start.add(text, arguments);
    write_to_streams(level, start, rest, arguments);
    errno = saved_errno;
}

} // namespace

template <std::uint32_t level>
void kiv::log_at(const char *function, int line, const char *text, ...) noexcept
{
    va_list arguments;
    va_start(arguments, text);
    write_line(level, function, line, text, arguments);
    va_end(arguments);
}

template void kiv::log_at<kiv::level::ERRR>(const char *, int, const char *, ...) noexcept;
template void kiv::log_at<kiv::level::PRNT>(const char *, int, const char *, ...) noexcept;
template void kiv::log_at<kiv::level::INF1>(const char *, int, const char *, ...) noexcept;
template void kiv::log_at<kiv::level::INF2>(const char *, int, const char *, ...) noexcept;

void kiv::report_failed_assertion(const char *source, const char *function, int line) noexcept
{
    log_at<level::ERRR>(function, line, "ASSERT FAILED [%s][%d]\n", source, line);
}

void kiv::report_failed_assertion(const char *source, const char *function, int line,
                                  const char *reason) noexcept
{
    report_failed_assertion(source, function, line);
    log_at<level::ERRR>(function, line, "%s\n", reason);
}

void kiv::log_enter(const char *function, int line) noexcept
{
    log_at<level::INF1>(function, line, "<<<<< enter <<<<<\n");
}

void kiv::log_exit(const char *function, int line) noexcept
{
    log_at<level::INF1>(function, line, "<<<<< exit  >>>>>\n");
}

void _kiv_block_print(int level, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write_line(static_cast<std::uint32_t>(level), nullptr, 0, format, arguments);
    va_end(arguments);
}

int32_t kiv_debug_init(void)
{
    KIV_LOG_PRNT("initialize\n");
    int32_t configured = 0;
    const bool found = kiv_config_get_param_int("general", "", "debugLevel", &configured) >= 1;
    if (found) {
        __atomic_store_n(&g_debugLevel, static_cast<uint32_t>(configured), __ATOMIC_RELAXED);
    }
    if (!KIV_HOLDS(found)) {
        const bool exists = kiv_config_get_param("general", "", "debugLevel", nullptr, 0) == 1;
        KIV_LOG_ERRR("general.debugLevel is %s\n", exists ? "not a number" : "missing");
    }
    KIV_LOG_PRNT("g_debugLevel = %d\n", static_cast<int>(__atomic_load_n(&g_debugLevel, __ATOMIC_RELAXED)));
    return found ? KIV_OK : KIV_ERR_SYSTEM;
}

int32_t kiv_debug_deinit(void)
{
    return KIV_OK;
}
