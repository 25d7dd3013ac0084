// Static objects that threads may still use while the process exits.
#pragma once

namespace kiv
{

/// Holds a static object that is never destroyed. What it owns goes with the process.
template <typename T>
union immortal {
    constexpr immortal() noexcept : value() {}
    ~immortal() {} // NOLINT(modernize-use-equals-default): defaulted, it would be deleted
    immortal(const immortal &) = delete;
    immortal &operator=(const immortal &) = delete;

    T *operator->() noexcept { return &value; }
    const T *operator->() const noexcept { return &value; }

    T value;
};

} // namespace kiv
