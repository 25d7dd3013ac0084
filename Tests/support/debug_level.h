// The level of the log, for tests whose library has threads.
#pragma once

#include "zol/kiv_debug.h"

namespace zol_test
{

/// Sets g_debugLevel while others may be looking at it.
inline void set_debug_level(unsigned level)
{
    __atomic_store_n(&g_debugLevel, level, __ATOMIC_RELAXED);
}

} // namespace zol_test
