/**
 * @file event.hpp
 * @brief Events with payloads, and waiting for them.
 */
#ifndef ZOL_EVENT_HPP
#define ZOL_EVENT_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "zol/bytes.hpp"
#include "zol/kiv_events.h"
#include "zol/owner.hpp"
#include "zol/result.hpp"
#include "zol/time_limit.hpp"

namespace zol
{

/// A group of events; see kiv_events.h. Destroy its events first: a group that has events stays, and an
/// ERRR line says so.
class event_group : public detail::pointer<kiv_event_group, kiv_events_delete_group>
{
public:
    using unique_ptr::unique_ptr;

    /// Makes an empty group.
    static result<event_group> create(const char *name) noexcept
    {
        kiv_event_group *group = nullptr;
        return detail::made<event_group>(detail::call(kiv_events_create_group, name, &group), group);
    }
};

/**
 * An event; see kiv_events.h. Used by any number of threads at a time.
 * @code
 *     auto group = zol::event_group::create("sensors");
 *     auto door = zol::event::create(*group, "door");
 *     if (door && door->enable() && door->notify(zol::bytes_of("open")))
 *         ...
 * @endcode
 */
class event : public detail::pointer<kiv_event_item, kiv_events_delete_event>
{
public:
    using unique_ptr::unique_ptr;

    /// @param first  Sees notifications first; null, a function, or a lambda that captures nothing.
    static result<event> create(const event_group &group, const char *name,
                                kiv_events_notify_cb first = nullptr) noexcept
    {
        kiv_event_item *item = nullptr;
        return detail::made<event>(detail::call(kiv_events_create_event, name, first, group.get(), &item),
                                   item);
    }

    /// A new event is disabled: it drops notifications.
    result<> enable(bool on = true) noexcept
    {
        return detail::call(kiv_events_set_enable_event, get(), on ? 1 : 0);
    }

    /// Sends a payload; waits while the event's pipe is full.
    /// @param user_arg  For the event's callback only.
    result<> notify(bytes payload = {}, std::uint32_t user_arg = 0) const noexcept
    {
        const auto size = static_cast<std::uint32_t>(std::min<std::size_t>(payload.size(), UINT32_MAX));
        return detail::call(kiv_events_notify, get(), payload.data(), size, user_arg);
    }
};

/// The descriptor from which a main loop reads an event's records; see kiv_events_get_event_fd().
inline result<int> event_descriptor(const char *name) noexcept
{
    std::int32_t fd = -1;
    return detail::made<int>(detail::call(kiv_events_get_event_fd, name, &fd), fd);
}

/// One of the events to wait for. The name and the room for its payload stay yours.
struct wait_entry : kiv_event_wait_entry {
    /// @param room  Where the payload goes.
    explicit wait_entry(const char *name, std::span<std::byte> room = {}) noexcept
        : kiv_event_wait_entry{name, 0, room.data(),
                               static_cast<std::uint32_t>(std::min<std::size_t>(room.size(), UINT32_MAX)), 0}
    {
    }

    /// Tells whether the last wait has taken a record of it.
    [[nodiscard]] bool has_fired() const noexcept { return fired != 0; }
    /// The payload that the last wait has taken, cut to the room.
    [[nodiscard]] bytes payload() const noexcept
    {
        return {static_cast<const std::byte *>(p_data), has_fired() ? actual_sz : 0};
    }
};
static_assert(sizeof(wait_entry) == sizeof(kiv_event_wait_entry), "an array of them is one of the C records");

/**
 * Waits until at least one of some events has been notified, and takes one record of each that has; see
 * kiv_events_wait_for(). A limit counts in whole milliseconds, rounded up.
 * @code
 *     int press = 0;
 *     zol::wait_entry pressed("pressed", zol::bytes_of(press));
 *     if (zol::wait_for(pressed, std::chrono::seconds(10)) && pressed.has_fired())
 *         ...
 * @endcode
 */
inline result<> wait_for(std::span<wait_entry> entries, time_limit limit = no_limit) noexcept
{
    for (wait_entry &entry : entries) {
        entry.fired = 0;
    }
    const auto count = static_cast<std::uint32_t>(std::min<std::size_t>(entries.size(), UINT32_MAX));
    std::int64_t ms = (limit.microseconds() + 999) / 1000;
    constexpr std::int64_t longest = INT32_MAX / 1000; // that the C interface waits at once
    detail::outcome outcome = {};
    do {
        const auto us = static_cast<std::int32_t>(std::min(ms, longest) * 1000);
        ms -= std::min(ms, longest);
        outcome = detail::call(kiv_events_wait_for, entries.data(), count,
                               limit.is_limited() ? std::max(us, 1) : 0);
    } while (outcome.status == error::timeout && ms > 0);
    return outcome;
}
/// The same for one event.
inline result<> wait_for(wait_entry &entry, time_limit limit = no_limit) noexcept
{
    return wait_for(std::span(&entry, 1), limit);
}

} // namespace zol

#endif
