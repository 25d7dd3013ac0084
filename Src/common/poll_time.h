// Times as poll() takes them.
#pragma once

#include <chrono>

namespace kiv
{

/// @return Milliseconds, rounded up, so that poll() does not return too early; 0 for a time that is over.
inline int poll_time(std::chrono::nanoseconds left) noexcept
{
    constexpr std::chrono::nanoseconds almost_one(999'999);
    using std::chrono::milliseconds;
    return left.count() > 0
               ? static_cast<int>(std::chrono::duration_cast<milliseconds>(left + almost_one).count())
               : 0;
}

} // namespace kiv
