#include "delayed_calls.h"

#include <sys/timerfd.h>

#include <algorithm>

namespace kivboard
{

delayed_calls::delayed_calls() : timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {}

// Without a timer, calls are made too early rather than never.
void delayed_calls::defer(board_clock::time_point due, std::function<void()> call)
{
    if (!timer_.is_open()) {
        call();
        return;
    }
    calls_.emplace(due, std::move(call));
    set_timer();
}

void delayed_calls::make_until(board_clock::time_point now)
{
    while (!calls_.empty() && calls_.begin()->first <= now) {
        const auto call = calls_.extract(calls_.begin());
        call.mapped()();
    }
    set_timer();
}

// Setting the timer also makes its descriptor unreadable. A time of 0 would stop it.
void delayed_calls::set_timer()
{
    using namespace std::chrono;
    itimerspec next = {};
    if (!calls_.empty()) {
        const auto left = std::max<nanoseconds>(calls_.begin()->first - board_clock::now(), 1ns);
        next.it_value.tv_sec = static_cast<time_t>(left / 1s);
        next.it_value.tv_nsec = static_cast<long>((left % 1s).count());
    }
    timerfd_settime(timer_.get(), 0, &next, nullptr);
}

} // namespace kivboard
