/**
 * @file time_limit.hpp
 * @brief How long to wait.
 */
#ifndef ZOL_TIME_LIMIT_HPP
#define ZOL_TIME_LIMIT_HPP

#include <chrono>
#include <cstdint>

namespace zol
{

/// How long to wait: any std::chrono duration, or zol::no_limit. Zero and less do not wait.
class time_limit
{
public:
    /// Microseconds count, rounded up; what is longer than 285 years has no limit.
    template <typename Rep, typename Period>
    constexpr time_limit(std::chrono::duration<Rep, Period> limit) noexcept
        : us_(limit <= limit.zero() ? 0
              : std::chrono::duration<double, std::micro>(limit).count() < unlimited
                  ? std::chrono::ceil<std::chrono::microseconds>(limit).count()
                  : unlimited)
    {
    }

    /// True when there is a limit.
    [[nodiscard]] constexpr bool is_limited() const noexcept { return us_ != unlimited; }
    /// The limit.
    [[nodiscard]] constexpr std::int64_t microseconds() const noexcept { return us_; }

private:
    static constexpr std::int64_t unlimited = std::int64_t{1} << 53;
    std::int64_t us_;
};

/// Waits for ever.
inline constexpr time_limit no_limit{std::chrono::hours::max()};

} // namespace zol

#endif
