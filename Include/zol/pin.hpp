/**
 * @file pin.hpp
 * @brief GPIO pins and their interrupts.
 */
#ifndef ZOL_PIN_HPP
#define ZOL_PIN_HPP

#include <concepts>
#include <cstdint>
#include <memory>

#include "zol/kiv_gpio.h"
#include "zol/owner.hpp"
#include "zol/result.hpp"

namespace zol
{

namespace detail
{

inline void free_pin(int number) noexcept
{
    kiv_gpio_free(number);
}

} // namespace detail

/// The causes of a pin's interrupt.
enum class trigger { rising = 1, falling, both_edges, low, high };

/**
 * A GPIO pin; see kiv_gpio.h. Used by any number of threads at a time, but not by callbacks.
 * @code
 *     auto on_press = [&](int pin) { static_cast<void>(pressed.notify(zol::bytes_of(pin))); };
 *     auto button = zol::pin::request(17, "button");
 *     if (button && button->watch(zol::trigger::rising, on_press))
 *         ...
 * @endcode
 */
class pin : public detail::owned<int, detail::free_pin>
{
public:
    using owned::owned;

    /// Allocates a pin.
    static result<pin> request(int number, const char *name) noexcept
    {
        return detail::made<pin>(detail::call(kiv_gpio_request, number, name), number);
    }

    /// Drives it: high for anything but 0.
    result<> set_level(int level) noexcept { return detail::call(kiv_gpio_set, number(), level); }
    /// 1 or 0; 0 as well where the level could not be read, which the log says.
    result<int> level() const noexcept
    {
        int level = 0;
        return detail::made<int>(detail::call(kiv_gpio_get, number(), &level), level);
    }

    /// Calls @p callback with the pin's number for each interrupt, on the listener's thread, until unwatch()
    /// has returned or the pin is gone: so declare the callback before the pin.
    template <std::invocable<int> F>
    result<> watch(trigger when, F &callback) noexcept
    {
        const bool is_edge = when <= trigger::both_edges;
        return detail::call(kiv_gpio_register_callback, number(), is_edge ? KIV_GPIO_EDGE : KIV_GPIO_LEVEL,
                            is_edge ? static_cast<int>(when) : 0,
                            when == trigger::high ? KIV_GPIO_LEVEL_HIGH : KIV_GPIO_LEVEL_LOW, on_interrupt<F>,
                            reinterpret_cast<std::uintptr_t>(std::addressof(callback)));
    }
    /// Takes the callback away; it does not run again once this has returned.
    result<> unwatch() noexcept { return detail::call(kiv_gpio_unregister_callback, number()); }

    /// -1 when empty.
    [[nodiscard]] int number() const noexcept { return get() != nullptr ? *get() : -1; }

private:
    template <typename F>
    static int on_interrupt(std::int32_t number, std::uintptr_t callback) noexcept
    {
        (*reinterpret_cast<F *>(callback))(number);
        return 0;
    }
};

} // namespace zol

#endif
