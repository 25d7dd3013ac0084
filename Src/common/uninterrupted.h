// System calls that signals must not cut short.
#pragma once

#include <cerrno>

namespace kiv
{

/// Makes a system call until it is not interrupted. @return Its result; errno is the call's.
template <typename Call>
auto uninterrupted(Call call) noexcept
{
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

} // namespace kiv
