// Annotations for ThreadSanitizer. It does not see GLib's locks, so it does not know that a push to a queue of
// GLib happens before the pop. In other builds all of this costs nothing.
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

} // namespace kiv
