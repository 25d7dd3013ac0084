// GLib's locks work below what ThreadSanitizer watches, so it cannot see that a queue of GLib's orders what
// one thread did to a record before it pushed it and what another does after it popped it. The first two say
// so. Nor does it watch locks that are waited for by the steady clock; the third says that one was taken.
// They cost nothing in any other build.
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

/// Around an attempt to take a lock with a limit. @return What the attempt returned: whether it is held.
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
