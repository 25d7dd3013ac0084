// The time that a call may still wait.
#pragma once

#include <chrono>
#include <cstdint>

#include "common/poll_time.h"

namespace kiv
{

class time_limit
{
public:
    /// Of the microseconds whole milliseconds count; 0 or less means no limit.
    explicit time_limit(int32_t us) noexcept : ms_(us > 0 ? us / 1000 : -1)
    {
        if (ms_ > 0) {
            end_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms_);
        }
    }

    /// The whole limit as poll() takes it: milliseconds, or -1.
    [[nodiscard]] int milliseconds() const noexcept { return ms_; }

    /// The rest of it as poll() takes it, rounded up.
    [[nodiscard]] int remaining() const noexcept
    {
        return ms_ <= 0 ? ms_ : poll_time(end_ - std::chrono::steady_clock::now());
    }

private:
    int ms_;
    std::chrono::steady_clock::time_point end_;
};

} // namespace kiv
