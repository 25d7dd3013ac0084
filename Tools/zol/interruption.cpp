#include "interruption.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace zol_tool
{

namespace
{

// A signal that is ignored from the start stays ignored: a background job of a script ignores Ctrl-C.
bool is_ignored(int signal)
{
    struct sigaction action = {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

} // namespace

interruption::interruption()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        if (!is_ignored(signal)) {
            sigaddset(&signals, signal);
        }
    }
    pthread_sigmask(SIG_BLOCK, &signals, &before_);
    descriptor_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

interruption::~interruption()
{
    signal(); // a second Ctrl-C must not end the program before the status is told
    close(descriptor_);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

int interruption::signal()
{
    signalfd_siginfo information;
    while (read(descriptor_, &information, sizeof information) == sizeof information) {
        signal_ = static_cast<int>(information.ssi_signo);
    }
    return signal_;
}

bool interruption::comes_before(steady_time time)
{
    pollfd ready = {descriptor_, POLLIN, 0};
    while (signal() == 0 && std::chrono::steady_clock::now() < time) {
        ppoll(&ready, 1, time_left(time).get(), nullptr);
    }
    return signal() != 0;
}

time_left::time_left(std::optional<steady_time> then) : is_limited_(then.has_value())
{
    if (then) {
        using std::chrono::nanoseconds;
        const nanoseconds left =
            std::max<nanoseconds>(*then - std::chrono::steady_clock::now(), nanoseconds(0));
        const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
        left_.tv_sec = static_cast<std::time_t>(seconds.count());
        left_.tv_nsec = static_cast<long>((left - seconds).count());
    }
}

void end_by_signal(int status)
{
    if (status > status_of_signal(0)) {
        static_cast<void>(std::signal(status - status_of_signal(0), SIG_DFL));
        static_cast<void>(std::raise(status - status_of_signal(0)));
    }
}

} // namespace zol_tool
