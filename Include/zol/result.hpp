/**
 * @file result.hpp
 * @brief Errors, and results: a value, or why there is none.
 */
#ifndef ZOL_RESULT_HPP
#define ZOL_RESULT_HPP

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
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

namespace detail
{

/// How a call of the C interface ended.
struct outcome {
    error status;
    int system_error;
};

/// Calls the C interface. errno is cleared before, so that one of an earlier call is not taken for its own.
template <typename... Parameters, typename... Arguments>
outcome call(std::int32_t (*function)(Parameters...), Arguments... arguments) noexcept
{
    errno = 0;
    const std::int32_t status = function(arguments...);
    return {static_cast<error>(status), status == KIV_OK ? 0 : errno};
}

inline std::error_code system_code(int system_error) noexcept
{
    return {system_error, std::generic_category()};
}

} // namespace detail

/**
 * A value, or why there is none. As with an std::optional, look first, then dereference.
 * @code
 *     const auto level = button.level();
 *     if (!level && level.error() != std::errc::invalid_argument)
 *         report(level.error().message());
 * @endcode
 *
 * **The cause.** error() is what the C interface returned. cause() is errno as the failed C call left it: it
 * names the failure of the operating system behind error::open, error::not_found, error::write and
 * error::system, such as "No such file or directory" or "Remote I/O error". It is a clue, not a contract:
 * several calls of the system may have failed, of which it names the last. It is 0 where none failed, for
 * example with a wrong argument.
 */
template <typename T = void>
class [[nodiscard]] result
{
public:
    /// Success.
    result(T value) noexcept : value_(std::move(value)) {}
    /// Failure.
    result(zol::error error) noexcept : error_(error) {}
    /// Failure of a call of the C interface.
    result(detail::outcome failed) noexcept : error_(failed.status), system_error_(failed.system_error) {}

    /// True when there is a value.
    explicit operator bool() const noexcept { return value_.has_value(); }
    /// @name The value
    /// Only when there is one.
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

    /// The reason for a missing value; 0 when there is a value.
    [[nodiscard]] std::error_code error() const noexcept { return error_; }
    /// The failure of the operating system behind it; 0 when there is none.
    [[nodiscard]] std::error_code cause() const noexcept { return detail::system_code(system_error_); }

private:
    std::optional<T> value_;
    zol::error error_ = zol::error::none;
    int system_error_ = 0;
};

/// A success or a failure, without a value.
template <>
class [[nodiscard]] result<void>
{
public:
    /// error::none is success.
    result(zol::error error) noexcept : error_(error) {}
    /// The outcome of a call of the C interface.
    result(detail::outcome outcome) noexcept : error_(outcome.status), system_error_(outcome.system_error) {}

    /// True on success.
    explicit operator bool() const noexcept { return error_ == zol::error::none; }
    /// The reason for the failure; 0 on success.
    [[nodiscard]] std::error_code error() const noexcept { return error_; }
    /// The failure of the operating system behind it; 0 when there is none.
    [[nodiscard]] std::error_code cause() const noexcept { return detail::system_code(system_error_); }

private:
    zol::error error_;
    int system_error_ = 0;
};

namespace detail
{

/// The value that a call has made, unless it failed.
template <typename T, typename From>
result<T> made(outcome outcome, const From &from) noexcept
{
    return outcome.status == error::none ? result<T>(T(from)) : outcome;
}

} // namespace detail

} // namespace zol

#endif
