// Threads of the application may be cancelled. One that is cancelled while it holds a lock of ours would leave
// it held for ever.
#pragma once

#include <pthread.h>

namespace kiv
{

/// Delays a cancellation of the calling thread until the end of the scope.
class cancellation_off
{
public:
    cancellation_off() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
    ~cancellation_off() { pthread_setcancelstate(former_, nullptr); }
    cancellation_off(const cancellation_off &) = delete;
    cancellation_off &operator=(const cancellation_off &) = delete;

private:
    int former_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace kiv
