// Waiting for what another thread is to do.
#pragma once

#include <chrono>
#include <thread>

namespace zol_test
{

/// @return Whether something has become true within half a minute.
template <typename Condition>
bool eventually(Condition holds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

} // namespace zol_test
