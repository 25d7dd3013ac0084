/**
 * @file owner.hpp
 * @brief What owners are made of.
 */
#ifndef ZOL_OWNER_HPP
#define ZOL_OWNER_HPP

#include <memory>
#include <utility>

namespace zol
{

namespace detail
{

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
