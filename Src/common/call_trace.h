// The pair of lines that frames a public call in the log.
#pragma once

#include "zol/kiv_debug.h"

namespace kiv
{

/// Logs the entry of the calling function, and its exit on every way out.
class call_trace
{
public:
    explicit call_trace(int line = __builtin_LINE(), const char *function = __builtin_FUNCTION()) noexcept
        : line_(line), function_(function), is_on_(__atomic_load_n(&g_debugLevel, __ATOMIC_RELAXED) >= level)
    {
        if (is_on_) {
            _kiv_block_print(level, KIV_LOG_PREFIX_INF1 "<<<<< enter <<<<<\n", function_, line_);
        }
    }

    ~call_trace()
    {
        if (is_on_) {
            _kiv_block_print(level, KIV_LOG_PREFIX_INF1 "<<<<< exit  >>>>>\n", function_, line_);
        }
    }

    call_trace(const call_trace &) = delete;
    call_trace &operator=(const call_trace &) = delete;

private:
    static constexpr int level = 3;

    int line_;
    const char *function_;
    bool is_on_; // decided at the entry
};

} // namespace kiv
