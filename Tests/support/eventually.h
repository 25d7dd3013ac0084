// Waits until other threads have done their work.
#pragma once

#include <chrono>
#include <thread>

namespace zol_test
{

/// @return True when the condition has become true within the limit.
template <typename Condition>
bool eventually(Condition holds, std::chrono::seconds limit = std::chrono::seconds(30))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

} // namespace zol_test
