// Log lines under the name of the routine that they belong to. A helper never logs under its own name: it
// takes the call site of the public function, or logs as a step that has a fixed name of its own.
#pragma once

#include <cstdint>

#include "zol/kiv_debug.h"

namespace kiv
{

namespace level
{
inline constexpr std::uint32_t ERRR = 1;
inline constexpr std::uint32_t PRNT = 2;
inline constexpr std::uint32_t INF1 = 3;
inline constexpr std::uint32_t INF2 = 4;
} // namespace level

/// A place in a public function: the name and the line that log lines show.
struct call_site {
    const char *function;
    int line;

    /// The caller's own place.
    [[nodiscard]] static constexpr call_site here(const char *function = __builtin_FUNCTION(),
                                                  int line = __builtin_LINE()) noexcept
    {
        return {function, line};
    }
};

/// Writes one message under the name and the line of a call site. The prefix of its level is added here: the
/// library has hundreds of texts, and each would carry a copy of it. A function per level, because hundreds of calls
/// would pass the level.
template <std::uint32_t level>
[[gnu::cold]] KIV_PRINTF_LIKE(3, 4) void log_at(const char *function, int line, const char *text,
                                                ...) noexcept;

/// Logs a failed assertion.
[[gnu::cold]] void report_failed_assertion(const char *source, const char *function, int line) noexcept;

/// Logs a failed assertion, and the reason in a line of its own.
[[gnu::cold, gnu::noinline]] void report_failed_assertion(const char *source, const char *function, int line,
                                                          const char *reason) noexcept;

} // namespace kiv

// The log entries of zol/kiv_debug.h, inside the library.
#undef KIV_LOG_CALL_
#define KIV_LOG_CALL_(level, prefix, ...)                                                                    \
    kiv::log_at<level>(__builtin_FUNCTION(), __LINE__,                                                       \
                       KIV_LOG_TEXT_(__VA_ARGS__, 0)                                                         \
                           KIV_LOG_ARGUMENTS_(KIV_LOG_KIND_(__VA_ARGS__), __VA_ARGS__))

/// KIV_LOG_AT(site, INF1, "text %d\n", value) logs under a call site that was handed down.
#define KIV_LOG_AT(site, tag, text, ...)                                                                     \
    do {                                                                                                     \
        if (kiv::level::tag == kiv::level::ERRR ||                                                           \
            __atomic_load_n(&g_debugLevel, __ATOMIC_RELAXED) >= kiv::level::tag) {                           \
            kiv::log_at<kiv::level::tag>((site).function, (site).line, text __VA_OPT__(, ) __VA_ARGS__);     \
        }                                                                                                    \
    } while (0)

/// KIV_LOG_AS("__some_step", INF1, "text %d\n", value) logs as a step with a fixed name, under this line.
#define KIV_LOG_AS(name, tag, text, ...)                                                                     \
    KIV_LOG_AT((kiv::call_site{name, __LINE__}), tag, text __VA_OPT__(, ) __VA_ARGS__)

/// Tests a condition. A false one is logged like KIV_ASSERT, under the calling function:
/// if (!KIV_HOLDS(size > 0)) return KIV_ERR_INVALID_PARAM;
#define KIV_HOLDS(condition) KIV_HOLDS_AT(kiv::call_site::here(), condition)

/// The same under a call site that was handed down.
#define KIV_HOLDS_AT(site, condition)                                                                        \
    (static_cast<bool>(condition) ||                                                                         \
     (kiv::report_failed_assertion(KIV_SOURCE_PATH, (site).function, (site).line), false))

/// Tests an argument or a state that the caller is responsible for. A reason follows the assertion, which shows
/// a place in the source and no more: if (!KIV_GIVEN(buffer != nullptr, "no buffer")) return ...
#define KIV_GIVEN(condition, reason) KIV_GIVEN_AT(kiv::call_site::here(), condition, reason)

/// The same under a call site that was handed down.
#define KIV_GIVEN_AT(site, condition, reason)                                                                \
    (static_cast<bool>(condition) ||                                                                         \
     (kiv::report_failed_assertion(KIV_SOURCE_PATH, (site).function, (site).line, reason), false))
