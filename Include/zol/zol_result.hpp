/**
 * @file zol_result.hpp
 * @brief Results, bytes, time limits and owners: what zol.hpp, which includes this, is made of.
 */
#ifndef ZOL_ZOL_RESULT_HPP
#define ZOL_ZOL_RESULT_HPP

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

#include "zol/kiv_status.h"

/// libzol for C++20; see zol.hpp.
namespace zol
{

/// The statuses of the C interface, with their meaning there.
enum class error : std::int32_t {
    none = KIV_OK,
    invalid_param = KIV_ERR_INVALID_PARAM,
    open = KIV_ERR_OPEN,
    not_found = KIV_ERR_NOT_FOUND,
    write = KIV_ERR_WRITE,
    system = KIV_ERR_SYSTEM,
    no_memory = KIV_ERR_NO_MEMORY,
    unimplemented = KIV_ERR_UNIMPLEMENTED,
    timeout = KIV_ERR_TIMEOUT,
    state = KIV_ERR_STATE,
};

} // namespace zol

template <>
struct std::is_error_code_enum<zol::error> : std::true_type {
};

namespace zol
{

namespace detail
{

struct meaning {
    error status;
    const char *text;
    std::errc condition; // what the code compares equal to as well; 0 for nothing
};

inline constexpr meaning meanings[] = {
    {error::none, "success", {}},
    {error::invalid_param, "invalid argument or handle", std::errc::invalid_argument},
    {error::open, "cannot be opened", {}},
    {error::not_found, "not found, or the read transfer failed", {}},
    {error::write, "the write transfer failed", {}},
    {error::system, "a call of the system failed, or a setting is missing", {}},
    {error::no_memory, "out of memory, or the buffer is too small", std::errc::not_enough_memory},
    {error::unimplemented, "not implemented", std::errc::function_not_supported},
    {error::timeout, "the time is over", std::errc::timed_out},
    {error::state, "not possible now: not started, started already, or ended", {}},
};

class category final : public std::error_category
{
public:
    [[nodiscard]] const char *name() const noexcept override { return "zol"; }
    [[nodiscard]] std::string message(int status) const override
    {
        const meaning *const known = find(status);
        return known != nullptr ? known->text : "unknown status " + std::to_string(status);
    }
    [[nodiscard]] std::error_condition default_error_condition(int status) const noexcept override
    {
        const meaning *const known = find(status);
        return known != nullptr && known->condition != std::errc{}
                   ? std::make_error_condition(known->condition)
                   : std::error_condition(status, *this);
    }

private:
    static const meaning *find(int status) noexcept
    {
        const auto *const at = std::ranges::find(meanings, static_cast<error>(status), &meaning::status);
        return at != std::ranges::end(meanings) ? at : nullptr;
    }
};

} // namespace detail

/// The category of the codes that a zol::error becomes.
inline const std::error_category &error_category() noexcept
{
    static const detail::category instance;
    return instance;
}

/// How the standard library makes a code of an error.
inline std::error_code make_error_code(error status) noexcept
{
    return {static_cast<int>(status), error_category()};
}

/**
 * A value, or why there is none. As with an std::optional, look first, then dereference.
 * @code
 *     const auto level = button.level();
 *     if (!level && level.error() != std::errc::invalid_argument)
 *         report(level.error().message());
 * @endcode
 */
template <typename T = void>
class [[nodiscard]] result
{
public:
    /// Success.
    result(T value) noexcept : value_(std::move(value)) {}
    /// Failure.
    result(zol::error error) noexcept : error_(error) {}

    /// Whether there is a value.
    explicit operator bool() const noexcept { return value_.has_value(); }
    /// @name The value
    /// Where there is one.
    /// @{

    /// By reference.
    T &operator*() noexcept { return *value_; }
    /// By reference.
    const T &operator*() const noexcept { return *value_; }
    /// Its members.
    T *operator->() noexcept { return &*value_; }
    /// Its members.
    const T *operator->() const noexcept { return &*value_; }
    /// @}

    /// Why there is no value; 0 where there is one.
    [[nodiscard]] std::error_code error() const noexcept { return error_; }

private:
    std::optional<T> value_;
    zol::error error_ = zol::error::none;
};

/// Whether it succeeded, and nothing else.
template <>
class [[nodiscard]] result<void>
{
public:
    /// error::none is success.
    result(zol::error error) noexcept : error_(error) {}
    /// From a status of the C interface.
    explicit result(std::int32_t status) noexcept : error_(static_cast<zol::error>(status)) {}

    /// Whether it succeeded.
    explicit operator bool() const noexcept { return error_ == zol::error::none; }
    /// Why it failed; 0 where it did not.
    [[nodiscard]] std::error_code error() const noexcept { return error_; }

private:
    zol::error error_;
};

/// A payload.
using bytes = std::span<const std::byte>;

/// What consists of its own bytes. What pointers and views refer to lies elsewhere.
template <typename T>
concept plain = std::is_trivially_copyable_v<T> && !std::is_pointer_v<T> && !std::ranges::view<T>;

/// The bytes of a variable, to be sent or filled. Those of a literal include its end.
template <plain T>
[[nodiscard]] auto bytes_of(T &value) noexcept
{
    if constexpr (std::is_const_v<T>) {
        return bytes(std::as_bytes(std::span(&value, 1)));
    } else {
        return std::span<std::byte>(std::as_writable_bytes(std::span(&value, 1)));
    }
}
/// The bytes of a text, without an end.
[[nodiscard]] inline bytes bytes_of(std::string_view text) noexcept
{
    return std::as_bytes(std::span(text));
}

/// The way back: a copy of the value, if that has as many bytes.
template <plain T>
[[nodiscard]] std::optional<T> from_bytes(bytes from) noexcept
{
    std::optional<T> value;
    if (from.size() == sizeof(T)) {
        std::memcpy(&value.emplace(), from.data(), sizeof(T));
    }
    return value;
}

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

    /// Whether there is a limit.
    [[nodiscard]] constexpr bool is_limited() const noexcept { return us_ != unlimited; }
    /// The limit.
    [[nodiscard]] constexpr std::int64_t microseconds() const noexcept { return us_; }

private:
    static constexpr std::int64_t unlimited = std::int64_t{1} << 53;
    std::int64_t us_;
};

/// Waits for ever.
inline constexpr time_limit no_limit{std::chrono::hours::max()};

namespace detail
{

/// What a call has made, unless its status is a failure.
template <typename T, typename From>
result<T> made(std::int32_t status, const From &from) noexcept
{
    return status == KIV_OK ? result<T>(T(from)) : static_cast<zol::error>(status);
}

template <auto Release>
struct releaser {
    void operator()(auto *object) const noexcept { Release(object); }
};

/// Owns what the C interface hands out as a pointer.
template <typename T, auto Release>
using pointer = std::unique_ptr<T, releaser<Release>>;

/// Owns what it hands out as a value.
template <typename T, auto Release>
class owned
{
public:
    owned() = default;
    explicit owned(T value) noexcept : value_(value), is_owner_(true) {}
    owned(owned &&other) noexcept : value_(other.value_), is_owner_(std::exchange(other.is_owner_, false)) {}
    owned &operator=(owned &&other) noexcept
    {
        owned taken(std::move(other));
        std::swap(value_, taken.value_);
        std::swap(is_owner_, taken.is_owner_);
        return *this;
    }
    ~owned()
    {
        if (is_owner_) {
            Release(value_);
        }
    }

    explicit operator bool() const noexcept { return is_owner_; }
    [[nodiscard]] T *get() noexcept { return is_owner_ ? &value_ : nullptr; }
    [[nodiscard]] const T *get() const noexcept { return is_owner_ ? &value_ : nullptr; }

private:
    T value_{};
    bool is_owner_ = false;
};

} // namespace detail

} // namespace zol

#endif
