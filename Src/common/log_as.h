// Log lines under the name of a routine that a table or a shared helper stands for.
#pragma once

#include <cstdint>

#include "zol/kiv_debug.h"

namespace kiv::level
{
inline constexpr std::uint32_t ERRR = 1;
inline constexpr std::uint32_t PRNT = 2;
inline constexpr std::uint32_t INF1 = 3;
} // namespace kiv::level

/// KIV_LOG_AS("__some_routine", INF1, "text %d\n", value)
#define KIV_LOG_AS(function, tag, text, ...)                                                                 \
    do {                                                                                                     \
        if (kiv::level::tag == kiv::level::ERRR ||                                                           \
            __atomic_load_n(&g_debugLevel, __ATOMIC_RELAXED) >= kiv::level::tag) {                           \
            _kiv_block_print(kiv::level::tag, KIV_LOG_PREFIX_##tag text, function,                           \
                             __LINE__ __VA_OPT__(, ) __VA_ARGS__);                                           \
        }                                                                                                    \
    } while (0)
