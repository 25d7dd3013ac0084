#include "zol/kiv_debug.h"

#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>

#include "common/mutex.h"
#include "zol/kiv_config.h"
#include "zol/kiv_status.h"

uint32_t g_debugLevel = 1;

namespace
{

constexpr int error_level = 1;
constexpr std::int64_t us_per_second = 1'000'000;

// When the first message was logged, in µs; 0 until then. One word, so that threads racing for the first
// message settle it without the lock.
std::atomic<std::int64_t> g_start_tp{0};

// Makes the writes of one message indivisible. Innermost of all locks: nothing else is taken while it is
// held.
kiv::mutex g_printLock;

struct elapsed_time {
    std::int64_t seconds;
    int milliseconds; // within the wall-clock second: the start's own fraction is not taken off
};

elapsed_time elapsed_since_first_message() noexcept
{
    timeval now{};
    gettimeofday(&now, nullptr);
    std::int64_t start = g_start_tp.load(std::memory_order_relaxed);
    if (start == 0) {
        const std::int64_t now_us = now.tv_sec * us_per_second + now.tv_usec;
        if (g_start_tp.compare_exchange_strong(start, now_us, std::memory_order_relaxed)) {
            start = now_us;
        }
    }
    return {now.tv_sec - start / us_per_second, static_cast<int>(now.tv_usec / 1000)};
}

using timestamp_text = char[64];

char *blanks_until(char *at, const char *until) noexcept
{
    while (at < until) {
        *at++ = ' ';
    }
    return at;
}

// "T %3d.%-3d ", by hand: the general formatter costs as much again as the rest of a line.
void format_timestamp(timestamp_text &text, const elapsed_time &elapsed) noexcept
{
    char digits[24] = {};
    const char *const digits_end = std::to_chars(digits, digits + sizeof digits, elapsed.seconds).ptr;
    char *at = text;
    *at++ = 'T';
    *at++ = ' ';
    at = blanks_until(at, at + 3 - (digits_end - digits));
    for (const char *digit = digits; digit != digits_end; ++digit) {
        *at++ = *digit;
    }
    *at++ = '.';
    const char *const fraction_end = at + 3;
    at = std::to_chars(at, text + sizeof text, elapsed.milliseconds).ptr;
    at = blanks_until(at, fraction_end);
    *at++ = ' ';
    *at = '\0';
}

KIV_PRINTF_LIKE(3, 0)
void write_message(FILE *stream, const char *timestamp, const char *format, va_list arguments) noexcept
    KIV_REQUIRES(g_printLock)
{
    va_list own;
    va_copy(own, arguments);
    std::fputs(timestamp, stream);
    std::vfprintf(stream, format, own);
    va_end(own);
}

} // namespace

void _kiv_block_print(int level, const char *format, ...)
{
    const int saved_errno = errno;
    timestamp_text timestamp;
    format_timestamp(timestamp, elapsed_since_first_message());
    if (stdout == nullptr) {
        return;
    }

    va_list arguments;
    va_start(arguments, format);
    {
        const kiv::scoped_lock lock(g_printLock);
        if (static_cast<uint32_t>(level) <= __atomic_load_n(&g_debugLevel, __ATOMIC_RELAXED)) {
            write_message(stdout, timestamp, format, arguments);
        }
        if (level <= error_level && stderr != nullptr) {
            write_message(stderr, timestamp, format, arguments);
        }
    }
    va_end(arguments);
    errno = saved_errno;
}

int32_t kiv_debug_init(void)
{
    KIV_LOG_PRNT("initialize\n");
    int32_t configured = 0;
    const bool found = kiv_config_get_param_int("general", "", "debugLevel", &configured) >= 1;
    if (found) {
        __atomic_store_n(&g_debugLevel, static_cast<uint32_t>(configured), __ATOMIC_RELAXED);
    }
    KIV_ASSERT(found);
    KIV_LOG_PRNT("g_debugLevel = %d\n", static_cast<int>(__atomic_load_n(&g_debugLevel, __ATOMIC_RELAXED)));
    return found ? KIV_OK : KIV_ERR_SYSTEM;
}

int32_t kiv_debug_deinit(void)
{
    return KIV_OK;
}
