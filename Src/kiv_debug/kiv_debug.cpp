#include "zol/kiv_debug.h"

#include <pthread.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>

#include "common/cancellation.h"
#include "common/mutex.h"
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
    std::time_t seconds;
    long milliseconds; // within the wall-clock second: the start's own fraction is not taken off
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
    return {now.tv_sec - start, now.tv_usec / 1000};
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

// A level's prefix is its beginning, the name in 35 columns, a blank, the line in 4, and its end.
constexpr std::string_view prefix_end = " : \033[0m";
constexpr std::string_view conversions = "%35s %4d";
constexpr int name_width = 35;
constexpr int line_width = 4;

constexpr std::string_view beginning_of(std::string_view prefix)
{
    return prefix.substr(0, prefix.size() - prefix_end.size() - conversions.size());
}

constexpr std::string_view prefixes[] = {KIV_LOG_PREFIX_ERRR, KIV_LOG_PREFIX_PRNT, KIV_LOG_PREFIX_INF1,
                                         KIV_LOG_PREFIX_INF2};

// The prefix of a level that has none is the one of the finest.
constexpr std::string_view prefix_of(std::uint32_t level) noexcept
{
    return prefixes[std::clamp(level, kiv::level::ERRR, kiv::level::INF2) - kiv::level::ERRR];
}

// The beginning of a message: the time and, mostly, the prefix of its level. It is put together by hand, since the
// general formatter takes longer for it than for the rest of a line.
class heading
{
public:
    // "T %3d.%-3d "
    explicit heading(const elapsed_time &elapsed) noexcept
    {
        add("T ");
        add_number(static_cast<int>(elapsed.seconds), 3);
        add(".");
        const char *const fraction_end = end_ + 3;
        add_number(static_cast<int>(elapsed.milliseconds), 0);
        add_blanks(fraction_end - end_);
        add(" ");
    }

    // @return False when there is no name, or a very long one: nothing is added.
    bool add_prefix(std::uint32_t level, const char *function, int line) noexcept
    {
        if (function == nullptr || std::strlen(function) > longest_name) {
            return false;
        }
        const std::string_view name = function;
        add(beginning_of(prefix_of(level)));
        add_blanks(name_width - static_cast<std::ptrdiff_t>(name.size()));
        add(name);
        add(" ");
        add_number(line, line_width);
        add(prefix_end);
        return true;
    }

    [[nodiscard]] std::string_view text() const noexcept
    {
        return {text_, static_cast<std::size_t>(end_ - text_)};
    }

private:
    static constexpr std::size_t longest_name = 160;

    void add(std::string_view more) noexcept { end_ = std::copy(more.begin(), more.end(), end_); }

    void add_blanks(std::ptrdiff_t count) noexcept
    {
        end_ = std::fill_n(end_, std::max<std::ptrdiff_t>(count, 0), ' ');
    }

    void add_number(int number, std::ptrdiff_t width) noexcept
    {
        char digits[24];
        const char *const digits_end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
        add_blanks(width - (digits_end - digits));
        add({digits, static_cast<std::size_t>(digits_end - digits)});
    }

    char text_[256];
    char *end_ = text_;
};

// Moves the prefix of a format into the heading, and its two arguments with it. Any other format stays as it is.
// @return The rest of the format.
[[gnu::format_arg(3)]] const char *take_prefix(heading &before, std::uint32_t level, const char *format,
                                               va_list &arguments) noexcept
{
    const std::string_view prefix = prefix_of(level);
    if (std::strncmp(format, prefix.data(), prefix.size()) != 0) {
        return format;
    }
    va_list taken;
    va_copy(taken, arguments);
    const char *const function = va_arg(taken, const char *);
    const int line = va_arg(taken, int);
    const bool is_added = before.add_prefix(level, function, line);
    if (is_added) {
        va_end(arguments);
        va_copy(arguments, taken);
    }
    va_end(taken);
    return is_added ? format + prefix.size() : format;
}

KIV_PRINTF_LIKE(3, 0)
void write_message(FILE *stream, const heading &before, const char *format, va_list arguments) noexcept
    KIV_REQUIRES(g_printLock)
{
    va_list own;
    va_copy(own, arguments);
    flockfile(stream); // once for both
    fwrite_unlocked(before.text().data(), 1, before.text().size(), stream);
    std::vfprintf(stream, format, own);
    funlockfile(stream);
    va_end(own);
}

KIV_PRINTF_LIKE(3, 0)
void write_to_streams(std::uint32_t level, const heading &before, const char *format,
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

} // namespace

void kiv::log_at(std::uint32_t level, const char *function, int line, const char *text, ...) noexcept
{
    const int saved_errno = errno;
    heading before(elapsed_since_first_message());
    if (stdout == nullptr) {
        return;
    }
    before.add_prefix(level, function, line);
    va_list arguments;
    va_start(arguments, text);
    write_to_streams(level, before, text, arguments);
    va_end(arguments);
    errno = saved_errno;
}

void kiv::report_failed_assertion(const char *source, const char *function, int line) noexcept
{
    log_at(level::ERRR, function, line, "ASSERT FAILED [%s][%d]\n", source, line);
}

void _kiv_block_print(int level, const char *format, ...)
{
    const int saved_errno = errno;
    heading before(elapsed_since_first_message());
    if (stdout == nullptr) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    const char *const text = take_prefix(before, static_cast<std::uint32_t>(level), format, arguments);
    write_to_streams(static_cast<std::uint32_t>(level), before, text, arguments);
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
