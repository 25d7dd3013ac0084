/**
 * @file zol.hpp
 * @brief libzol for C++20: owners, spans, durations and callables over the C interface, and nothing more.
 *
 * @code
 *     #include <cstdio>
 *     #include <zol/zol.hpp>
 *
 *     int main()
 *     {
 *         const auto library = zol::library::start();          // reads /etc/kiv/conf.xml
 *         auto sensor = zol::i2c_device::open(4, 0x18);
 *         if (!library || !sensor)
 *             return 1;
 *         if (const auto id = sensor->read_reg8(0x0f))
 *             std::printf("the sensor says that it is a 0x%02x\n", *id);
 *         else
 *             std::printf("%s\n", id.error().message().c_str());
 *     }
 * @endcode
 *
 * **Results.** What can fail returns a zol::result: true on success, and then it is used like a pointer to
 * the value; else it has an error(). Nothing throws, and the header compiles with -fno-exceptions -fno-rtti.
 *
 * **Owners** are moved, not copied; a moved-from owner is empty, as a default-constructed one is, and refuses
 * everything with error::invalid_param. What they own goes with them. Declare in the order of need (the
 * library, what a callable uses, the callable, what calls it): the language destroys in the opposite one.
 * get() gives what the C interface takes, for all that is not here; it stays the owner's.
 *
 * **Callables** are referred to, never copied: a handler or callback is a variable of yours that outlives its
 * use; a temporary does not compile. An exception that leaves one ends the process.
 *
 * **Costs.** All of it is inline and forwards to the C call of the same name, whose comment holds here too:
 * ranges, statuses, threads. Only zol::worker::start() and zol::message::make() allocate by themselves, once.
 */
#ifndef ZOL_ZOL_HPP
#define ZOL_ZOL_HPP

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "zol/zol.h"
#include "zol/zol_result.hpp"

namespace zol
{

namespace detail
{

inline void stop_library(bool) noexcept
{
    zol_deinit();
}
inline void close_device(kiv_i2c_handle &device) noexcept
{
    kiv_i2c_close(&device);
}
inline void free_pin(int number) noexcept
{
    kiv_gpio_free(number);
}

/// A worker that could not be stopped goes on using its record, which is better lost than gone.
inline void end_worker(kiv_thread *thread) noexcept
{
    if (thread->gthread == nullptr || kiv_thread_stop(thread) == KIV_OK) {
        kiv_thread_delete(thread);
        delete thread;
    }
}

} // namespace detail

/**
 * The started library, which is stopped when this goes. One at a time.
 * @code
 *     const auto library = zol::library::start("Conf/kiv_test.xml");
 *     if (!library)
 *         return 1;
 * @endcode
 */
class library : public detail::owned<bool, detail::stop_library>
{
public:
    using owned::owned;

    /// @param config  As for zol_init(): null for the board's own; the text stays valid until the stop.
    static result<library> start(const char *config = nullptr) noexcept
    {
        return detail::made<library>(zol_init(config), true);
    }
};

/// The library lock, for std::scoped_lock.
struct library_mutex {
    /// kiv_lock().
    void lock() noexcept { kiv_lock(); }
    /// kiv_unlock().
    void unlock() noexcept { kiv_unlock(); }
};

/**
 * A device on an I2C bus; see kiv_i2c.h. Used by one thread at a time.
 * @code
 *     auto eeprom = zol::i2c_device::open(1, 0x50);
 *     std::array<std::uint8_t, 5> start;
 *     if (eeprom && eeprom->read_reg16(0x0000, start) && eeprom->write_reg16(0x0123, start[4]))
 *         ...
 * @endcode
 */
class i2c_device : public detail::owned<kiv_i2c_handle, detail::close_device>
{
public:
    using owned::owned;

    /// Nothing is sent: whether the device answers shows with the first transfer.
    static result<i2c_device> open(std::int32_t bus, std::uint16_t address) noexcept
    {
        kiv_i2c_handle handle = {};
        return detail::made<i2c_device>(kiv_i2c_open(&handle, bus, address), handle);
    }

    /// @name Reading
    /// With an 8- or a 16-bit register address: one byte, or as many as the span has, at most 65535.
    /// @{

    /// Fills @p out.
    result<> read_reg8(std::uint8_t reg, std::span<std::uint8_t> out) noexcept
    {
        return transfer(kiv_i2c_read_reg8, reg, out);
    }
    /// Fills @p out.
    result<> read_reg16(std::uint16_t reg, std::span<std::uint8_t> out) noexcept
    {
        return transfer(kiv_i2c_read_reg16, reg, out);
    }
    /// Reads one byte.
    result<std::uint8_t> read_reg8(std::uint8_t reg) noexcept
    {
        std::uint8_t value = 0;
        return detail::made<std::uint8_t>(kiv_i2c_read_reg8(get(), reg, 1, &value), value);
    }
    /// Reads one byte.
    result<std::uint8_t> read_reg16(std::uint16_t reg) noexcept
    {
        std::uint8_t value = 0;
        return detail::made<std::uint8_t>(kiv_i2c_read_reg16(get(), reg, 1, &value), value);
    }
    /// @}

    /// @name Writing
    /// One byte, or several to the same register, at most 65535.
    /// @{

    /// Writes them one after another.
    result<> write_reg8(std::uint8_t reg, std::span<const std::uint8_t> values) noexcept
    {
        return transfer(kiv_i2c_write_reg8, reg, values);
    }
    /// Writes them one after another.
    result<> write_reg16(std::uint16_t reg, std::span<const std::uint8_t> values) noexcept
    {
        return transfer(kiv_i2c_write_reg16, reg, values);
    }
    /// Writes one byte.
    result<> write_reg8(std::uint8_t reg, std::uint8_t value) noexcept
    {
        return result<>(kiv_i2c_write_reg8(get(), reg, 1, &value));
    }
    /// Writes one byte.
    result<> write_reg16(std::uint16_t reg, std::uint8_t value) noexcept
    {
        return result<>(kiv_i2c_write_reg16(get(), reg, 1, &value));
    }
    /// @}

private:
    /// A size that a count of the C interface cannot say must not become another.
    template <typename Reg, typename Count, typename Byte>
    result<> transfer(std::int32_t (*call)(kiv_i2c_handle *, Reg, Count, Byte *), Reg reg,
                      std::span<Byte> data) noexcept
    {
        return data.size() <= UINT16_MAX
                   ? result<>(call(get(), reg, static_cast<Count>(data.size()), data.data()))
                   : error::invalid_param;
    }
};

/// What raises an interrupt of a pin.
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
        return detail::made<pin>(kiv_gpio_request(number, name), number);
    }

    /// Drives it: high for anything but 0.
    result<> set_level(int level) noexcept { return result<>(kiv_gpio_set(number(), level)); }
    /// 1 or 0; 0 as well where the level could not be read, which the log says.
    result<int> level() const noexcept
    {
        int level = 0;
        return detail::made<int>(kiv_gpio_get(number(), &level), level);
    }

    /// Calls @p callback with the pin's number for each interrupt, on the listener's thread, until unwatch()
    /// has returned or the pin is gone: so declare the callback before the pin.
    template <std::invocable<int> F>
    result<> watch(trigger when, F &callback) noexcept
    {
        const bool is_edge = when <= trigger::both_edges;
        return result<>(kiv_gpio_register_callback(
            number(), is_edge ? KIV_GPIO_EDGE : KIV_GPIO_LEVEL, is_edge ? static_cast<int>(when) : 0,
            when == trigger::high ? KIV_GPIO_LEVEL_HIGH : KIV_GPIO_LEVEL_LOW, on_interrupt<F>,
            reinterpret_cast<std::uintptr_t>(std::addressof(callback))));
    }
    /// Takes the callback away; it does not run again once this has returned.
    result<> unwatch() noexcept { return result<>(kiv_gpio_unregister_callback(number())); }

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

/**
 * A message to a worker; see kiv_thread.h.
 * @code
 *     auto measure = zol::message::make(100, zol::bytes_of(channel));
 *     if (measure && !worker.send(std::move(*measure)))
 *         keep(std::move(*measure));                           // what could not be sent is still there
 * @endcode
 */
class message : public detail::pointer<kiv_message, kiv_message_free>
{
public:
    using unique_ptr::unique_ptr;

    /// Makes one with a copy of the payload. The ids 2 and 3 are the module's.
    static result<message> make(std::int32_t id, bytes payload = {}) noexcept
    {
        const std::size_t size = sizeof(kiv_message) + payload.size();
        message made(std::in_range<std::uint32_t>(size)
                         ? kiv_message_new(id, static_cast<std::uint32_t>(size))
                         : nullptr);
        if (!made) {
            return error::no_memory;
        }
        std::ranges::copy(payload, reinterpret_cast<std::byte *>(made.get() + 1));
        return made;
    }
};

/// A message as the handler of a worker sees it, which does not keep it.
class received
{
public:
    /// Refers to the message.
    explicit received(const kiv_message &message) noexcept : message_(message) {}

    /// What it means.
    [[nodiscard]] std::int32_t id() const noexcept { return message_.msgId; }
    /// No message came in time.
    [[nodiscard]] bool is_timeout() const noexcept { return id() == KIV_MSG_ID_TIMEOUT; }
    /// The worker's last.
    [[nodiscard]] bool is_exit() const noexcept { return id() == KIV_MSG_ID_EXIT; }
    /// What the sender put into it; good until the handler returns.
    [[nodiscard]] bytes payload() const noexcept
    {
        return {reinterpret_cast<const std::byte *>(&message_ + 1), message_.sizeBytes - sizeof message_};
    }

private:
    const kiv_message &message_;
};

/**
 * A worker thread that handles messages; see kiv_thread.h. Any number of threads send to it at a time.
 * @code
 *     auto handle = [&](const zol::received &message) {
 *         if (message.is_timeout())
 *             measure();                                       // after each 100 ms without a message
 *     };
 *     auto worker = zol::worker::start("measurer", handle, std::chrono::milliseconds(100));
 * @endcode
 * When this goes, on another thread, it handles what is queued, then an is_exit() message, and ends.
 */
class worker : public detail::pointer<kiv_thread, detail::end_worker>
{
public:
    using unique_ptr::unique_ptr;

    /// @param name     At least 2 characters; cut at 63.
    /// @param handler  Called on the worker's thread for each message.
    /// @param idle     After how long without a message an is_timeout() one is handled: at most 35 minutes.
    template <std::invocable<const received &> F>
    static result<worker> start(const char *name, F &handler, time_limit idle = no_limit) noexcept
    {
        kiv_thread_params params = {};
        std::string_view(name).copy(params.name, sizeof params.name - 1);
        params.priority = 1;
        params.handler = on_message<F>;
        params.timeout =
            idle.is_limited()
                ? static_cast<std::int32_t>(std::min<std::int64_t>(idle.microseconds(), INT32_MAX))
                : -1;
        params.userData = reinterpret_cast<void *>(reinterpret_cast<std::uintptr_t>(std::addressof(handler)));
        worker made(new (std::nothrow) kiv_thread{});
        std::int32_t status = made ? kiv_thread_create(made.get(), &params) : KIV_ERR_NO_MEMORY;
        if (status == KIV_OK) {
            status = kiv_thread_start(made.get());
        }
        return status == KIV_OK ? result(std::move(made)) : static_cast<error>(status);
    }

    /// Sends a message, which is moved from only if that succeeds.
    result<> send(message &&message) noexcept { return send(message, 0); }
    /// The same, and returns when it is handled.
    result<> send_and_wait(message &&message) noexcept { return send(message, 1); }

    /// Ends the worker before this goes.
    result<> stop() noexcept { return result<>(kiv_thread_stop(get())); }
    /// Whether it takes messages: from its start until it ends.
    [[nodiscard]] bool is_running() const noexcept { return kiv_thread_isRunning(get()) != 0; }

private:
    template <typename F>
    static std::int32_t on_message(kiv_thread *thread, kiv_message *message) noexcept
    {
        (*reinterpret_cast<F *>(reinterpret_cast<std::uintptr_t>(thread->userData)))(received(*message));
        return 0;
    }

    result<> send(message &message, std::int32_t is_sync) noexcept
    {
        if (message) {
            message->isSync = is_sync;
        }
        const result<> sent(kiv_thread_sendMsg(get(), message.get()));
        if (sent) {
            static_cast<void>(message.release()); // the worker's now, and perhaps freed already
        }
        return sent;
    }
};

/// A group of events; see kiv_events.h. It goes after its events, else it is reported and stays.
class event_group : public detail::pointer<kiv_event_group, kiv_events_delete_group>
{
public:
    using unique_ptr::unique_ptr;

    /// Makes an empty group.
    static result<event_group> create(const char *name) noexcept
    {
        kiv_event_group *group = nullptr;
        return detail::made<event_group>(kiv_events_create_group(name, &group), group);
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
        return detail::made<event>(kiv_events_create_event(name, first, group.get(), &item), item);
    }

    /// A new event is disabled: it drops notifications.
    result<> enable(bool on = true) noexcept
    {
        return result<>(kiv_events_set_enable_event(get(), on ? 1 : 0));
    }

    /// Sends a payload; waits while the event's pipe is full.
    /// @param user_arg  For the event's callback only.
    result<> notify(bytes payload = {}, std::uint32_t user_arg = 0) const noexcept
    {
        const auto size = static_cast<std::uint32_t>(std::min<std::size_t>(payload.size(), UINT32_MAX));
        return result<>(kiv_events_notify(get(), payload.data(), size, user_arg));
    }
};

/// The descriptor from which a main loop reads an event's records; see kiv_events_get_event_fd().
inline result<int> event_descriptor(const char *name) noexcept
{
    std::int32_t fd = -1;
    return detail::made<int>(kiv_events_get_event_fd(name, &fd), fd);
}

/// One of the events to wait for. The name and the room for its payload stay yours.
struct wait_entry : kiv_event_wait_entry {
    /// @param room  Where the payload goes.
    explicit wait_entry(const char *name, std::span<std::byte> room = {}) noexcept
        : kiv_event_wait_entry{name, 0, room.data(),
                               static_cast<std::uint32_t>(std::min<std::size_t>(room.size(), UINT32_MAX)), 0}
    {
    }

    /// Whether the last wait has taken a record of it.
    [[nodiscard]] bool has_fired() const noexcept { return fired != 0; }
    /// What came, cut to the room.
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
    std::int32_t status = KIV_ERR_TIMEOUT;
    do {
        const auto us = static_cast<std::int32_t>(std::min(ms, longest) * 1000);
        ms -= std::min(ms, longest);
        status = kiv_events_wait_for(entries.data(), count, limit.is_limited() ? std::max(us, 1) : 0);
    } while (status == KIV_ERR_TIMEOUT && ms > 0);
    return result<>(status);
}
/// The same for one event.
inline result<> wait_for(wait_entry &entry, time_limit limit = no_limit) noexcept
{
    return wait_for(std::span(&entry, 1), limit);
}

/// A lane of a timing log.
struct lane {
    std::int32_t id;   ///< yours, unique; -1, -2 and -3 are taken
    const char *label; ///< title of the column
};

/// The lanes of one timing log, declared before it.
template <std::size_t N>
class lane_map
{
public:
    /// Copies the lanes; their labels stay yours.
    explicit lane_map(const lane (&lanes)[N]) noexcept
    {
        std::ranges::transform(lanes, entries_.begin(), [](const lane &from) {
            return kiv_tl_map_entry{from.id, from.label, 0, {}};
        });
        entries_[N].event_id = -1;
    }
    lane_map(const lane_map &) = delete;
    lane_map &operator=(const lane_map &) = delete;

    /// The map as the C interface takes it.
    [[nodiscard]] kiv_tl_map_entry *get() noexcept { return entries_.data(); }

private:
    std::array<kiv_tl_map_entry, N + 1> entries_{};
};

/**
 * A timing log; see kiv_timinglog.h. Any number of threads log to it at a time. An empty one logs nothing.
 * @code
 *     enum { READ = 1, FAILURE };
 *     zol::lane_map lanes({{READ, "read"}, {FAILURE, "failure"}});
 *     auto timing = zol::timing_log::open("sensor", lanes);
 *     const auto reading = timing->during(READ);               // high until the end of the block
 *     if (!sensor->read_reg8(0x0f))
 *         timing->pulse(FAILURE);
 * @endcode
 */
class timing_log : public detail::pointer<kiv_tl_ctx, kiv_tl_deinit>
{
public:
    using unique_ptr::unique_ptr;

    /// error::open when the file or the log's thread cannot be had.
    template <std::size_t N>
    static result<timing_log> open(const char *name, lane_map<N> &lanes) noexcept
    {
        timing_log opened(kiv_tl_init(name, lanes.get()));
        return opened ? result(std::move(opened)) : error::open;
    }

    /// Shows the lane high for an instant.
    void pulse(std::int32_t id) const noexcept { put(get(), id, KIV_TL_PULSE); }
    /// The lane is high from now on.
    void high(std::int32_t id) const noexcept { put(get(), id, KIV_TL_HIGH); }
    /// The lane is low from now on.
    void low(std::int32_t id) const noexcept { put(get(), id, KIV_TL_LOW); }

    /// Keeps a lane high as long as it lives.
    class [[nodiscard]] mark
    {
    public:
        /// See during().
        mark(kiv_tl_ctx *log, std::int32_t id) noexcept : log_(log), id_(id) { put(log_, id_, KIV_TL_HIGH); }
        ~mark() { put(log_, id_, KIV_TL_LOW); }
        mark(const mark &) = delete;
        mark &operator=(const mark &) = delete;

    private:
        kiv_tl_ctx *log_;
        std::int32_t id_;
    };
    /// The lane is high as long as what this returns lives.
    mark during(std::int32_t id) const noexcept { return {get(), id}; }

private:
    static void put(kiv_tl_ctx *log, std::int32_t id, std::int32_t value) noexcept
    {
        if (log != nullptr) {
            kiv_tl(log, id, value, nullptr);
        }
    }
};

/// A setting as a number, if there is one; see kiv_config_get_param_int().
[[nodiscard]] inline std::optional<std::int32_t> setting(const char *section, const char *name) noexcept
{
    std::int32_t value = 0;
    return kiv_config_get_param_int(section, "", name, &value) == 1 ? std::optional(value) : std::nullopt;
}

/// A setting as text in your buffer, cut to what that holds with the text's end.
[[nodiscard]] inline std::optional<std::string_view> setting(const char *section, const char *name,
                                                             std::span<char> buffer) noexcept
{
    const bool found = kiv_config_get_param(section, "", name, buffer.data(), buffer.size()) == 1;
    return found ? std::optional<std::string_view>(buffer.empty() ? "" : buffer.data()) : std::nullopt;
}

/// The size of a token in bytes; error::open where there is none. See kiv_token.h.
inline result<std::uint32_t> token_size(const char *name) noexcept
{
    std::uint32_t size = 0;
    return detail::made<std::uint32_t>(kiv_token_getSize(name, &size), size);
}

/// Reads of a token what fits. @return The part of the buffer that was filled.
inline result<std::span<std::byte>> read_token(const char *name, std::span<std::byte> buffer) noexcept
{
    std::uint32_t size = 0;
    const auto status = static_cast<error>(kiv_token_getData(name, buffer.data(), buffer.size(), &size));
    return status == error::none ? result(buffer.first(size)) : status;
}

/// Owns what kiv_xml_allocate() and kiv_xml_allocateFromFile() return.
using xml_document = detail::pointer<struct _xmlDoc, kiv_xml_delete>;

} // namespace zol

#endif
