// Waits that may be cancelled although the thread uses an event.
#pragma once

#include <pthread.h>

#include "common/cancellation.h"

namespace kiv
{

/// Makes a call in which the thread may be cancelled. If it is, cleans up first.
template <typename Call>
auto call_with_clean_up(Call call, void (*clean_up)(void *), void *argument)
{
    decltype(call()) result{};
    pthread_cleanup_push(clean_up, argument);
    result = call();
    pthread_cleanup_pop(0);
    return result;
}

} // namespace kiv
