/**
 * @file worker.hpp
 * @brief Worker threads and their messages.
 */
#ifndef ZOL_WORKER_HPP
#define ZOL_WORKER_HPP

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "zol/bytes.hpp"
#include "zol/kiv_thread.h"
#include "zol/owner.hpp"
#include "zol/result.hpp"
#include "zol/time_limit.hpp"

namespace zol
{

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

    /// The kind of message, of your choice.
    [[nodiscard]] std::int32_t id() const noexcept { return message_.msgId; }
    /// No message came in time.
    [[nodiscard]] bool is_timeout() const noexcept { return id() == KIV_MSG_ID_TIMEOUT; }
    /// The worker's last.
    [[nodiscard]] bool is_exit() const noexcept { return id() == KIV_MSG_ID_EXIT; }
    /// The payload of the sender, valid until the handler returns.
    [[nodiscard]] bytes payload() const noexcept
    {
        return {reinterpret_cast<const std::byte *>(&message_ + 1), message_.sizeBytes - sizeof message_};
    }

private:
    const kiv_message &message_;
};

namespace detail
{

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
        if (!made) {
            return error::no_memory;
        }
        auto outcome = detail::call(kiv_thread_create, made.get(), &params);
        if (outcome.status == error::none) {
            outcome = detail::call(kiv_thread_start, made.get());
        }
        return outcome.status == error::none ? result(std::move(made)) : outcome;
    }

    /// Sends a message, which is moved from only if that succeeds.
    result<> send(message &&message) noexcept { return send(message, 0); }
    /// The same, and returns when it is handled.
    result<> send_and_wait(message &&message) noexcept { return send(message, 1); }

    /// Ends the worker before this goes.
    result<> stop() noexcept { return detail::call(kiv_thread_stop, get()); }
    /// True while it takes messages: from its start to its end.
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
        const result<> sent = detail::call(kiv_thread_sendMsg, get(), message.get());
        if (sent) {
            static_cast<void>(message.release()); // the worker's now, and perhaps freed already
        }
        return sent;
    }
};

} // namespace zol

#endif
