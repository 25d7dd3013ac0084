// Threads of the library take no signals.
#pragma once

#include <pthread.h>

#include <csignal>
#include <initializer_list>

namespace kiv
{

/// While it exists, signals are blocked on the calling thread, and for good on the threads that it starts. So the
/// handlers of an application run on its own threads, and no call on ours ends with EINTR. Faults are not blocked:
/// a callback may commit them.
class signals_blocked
{
public:
    signals_blocked() noexcept
    {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
            sigdelset(&blocked, fault);
        }
        pthread_sigmask(SIG_BLOCK, &blocked, &former_);
    }
    ~signals_blocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
    signals_blocked(const signals_blocked &) = delete;
    signals_blocked &operator=(const signals_blocked &) = delete;

private:
    sigset_t former_;
};

} // namespace kiv
