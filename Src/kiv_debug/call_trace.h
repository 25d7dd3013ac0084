// The pair of lines that frames a public call in the log.
#pragma once

#include "log_as.h"

namespace kiv
{

/// Not in line, since every public function of some modules has both.
[[gnu::cold, gnu::noinline]] void log_enter(const char *function, int line) noexcept;
[[gnu::cold, gnu::noinline]] void log_exit(const char *function, int line) noexcept;

/// Logs the entry of the calling function, and its exit on every way out.
class call_trace
{
public:
    explicit call_trace(int line = __builtin_LINE(), const char *function = __builtin_FUNCTION()) noexcept
        : line_(line), function_(function),
          is_on_(__atomic_load_n(&g_debugLevel, __ATOMIC_RELAXED) >= level::INF1)
    {
        if (is_on_) {
            log_enter(function_, line_);
        }
    }

    ~call_trace()
    {
        if (is_on_) {
            log_exit(function_, line_);
        }
    }

    call_trace(const call_trace &) = delete;
    call_trace &operator=(const call_trace &) = delete;

private:
    int line_;
    const char *function_;
    bool is_on_; // decided at the entry
};

} // namespace kiv
