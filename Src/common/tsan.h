// Annotations for ThreadSanitizer. It does not see GLib's locks, so it does not know that a push to a queue of
// GLib happens before the pop. Nor does it watch timed locks of the steady clock. In other builds all of this
// costs nothing.
#pragma once

#if defined(__SANITIZE_THREAD__)
#    define KIV_TSAN 1
#elif defined(__has_feature)
#    if __has_feature(thread_sanitizer)
#        define KIV_TSAN 1
#    endif
#endif

#if defined(KIV_TSAN)
#    include <sanitizer/tsan_interface.h>
#endif

namespace kiv
{

/// Before a push.
inline void hand_over([[maybe_unused]] void *record) noexcept
{
#if defined(KIV_TSAN)
    __tsan_release(record);
#endif
}

/// After a pop.
inline void take_over([[maybe_unused]] void *record) noexcept
{
#if defined(KIV_TSAN)
    __tsan_acquire(record);
#endif
}

/// Around an attempt to take a lock with a limit. @return The attempt's own answer: true when the lock is held.
template <typename Attempt>
bool took_lock([[maybe_unused]] void *lock, Attempt attempt)
{
#if defined(KIV_TSAN)
    __tsan_mutex_pre_lock(lock, __tsan_mutex_try_lock);
#endif
    const bool taken = attempt();
#if defined(KIV_TSAN)
    __tsan_mutex_post_lock(lock, __tsan_mutex_try_lock | (taken ? 0 : __tsan_mutex_try_lock_failed), 0);
#endif
    return taken;
}

} // namespace kiv
