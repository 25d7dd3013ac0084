// The thread of a worker: takes messages from the queue and calls the handler, until it ends.
#pragma once

#include <glib.h>

#include "common/owner.h"
#include "rendezvous.h"
#include "zol/kiv_thread.h"

namespace kiv
{

using owned_message = owner<kiv_message, kiv_message_free>;
using owned_queue = owner<GAsyncQueue, g_async_queue_unref>;

inline void set_running(kiv_thread *thread, int32_t running) noexcept
{
    __atomic_store_n(&thread->running, running, __ATOMIC_RELEASE);
}

inline bool is_running(const kiv_thread *thread) noexcept
{
    return __atomic_load_n(&thread->running, __ATOMIC_ACQUIRE) != 0;
}

/// The thread of a worker, from its start until it is joined.
inline GThread *thread_of(const kiv_thread *thread) noexcept
{
    return __atomic_load_n(&thread->gthread, __ATOMIC_ACQUIRE);
}

inline bool is_own_worker(const kiv_thread *thread) noexcept
{
    return thread_of(thread) == g_thread_self();
}

/// @return The thread of a new worker, which the caller joins, or null: the system has none.
GThread *start_worker(kiv_thread *thread);

/// Gives an unhandled message back to its waiting sender, or frees it.
void drop(kiv_message *message);

} // namespace kiv
