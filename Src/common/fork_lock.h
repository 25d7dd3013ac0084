// A lock across fork(): a child never has a lock that a thread of its parent held.
#pragma once

#include <pthread.h>

#include "mutex.h"

namespace kiv
{

/// From the first call on, every fork takes state.lock before and releases it behind, in the parent and in the child.
/// @tparam in_child  The child calls it before the release.
/// @return 0, or an errno when there is no memory for the handlers.
template <auto &state, void (*in_child)()>
[[nodiscard]] int hold_lock_across_forks() noexcept
{
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    static int result;
    pthread_once(&once, [] {
        result = pthread_atfork([]() KIV_ACQUIRE(state.lock) { state.lock.lock(); },
                                []() KIV_RELEASE(state.lock) { state.lock.unlock(); },
                                []() KIV_RELEASE(state.lock) {
                                    // The analysis does not see through the parameter that the lock is held.
                                    void (*const child)() = in_child;
                                    child();
                                    state.lock.unlock();
                                });
    });
    return result;
}

} // namespace kiv
