// Calls that are made later, from the board's event loop.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <utility>

#include "common/unique_fd.h"

namespace kivboard
{

using board_clock = std::chrono::steady_clock;

class delayed_calls
{
public:
    delayed_calls();
    delayed_calls(const delayed_calls &) = delete;
    delayed_calls &operator=(const delayed_calls &) = delete;

    /// Makes the call at this time, or at once when the time has come.
    template <typename callable>
    void at(board_clock::time_point due, callable &&call)
    {
        if (due == board_clock::time_point() || due <= board_clock::now()) {
            call();
        } else {
            defer(due, std::forward<callable>(call));
        }
    }

    /// Becomes readable when a call is due.
    [[nodiscard]] int fd() const { return timer_.get(); }
    void make_due() { make_until(board_clock::now()); }
    void make_all() { make_until(board_clock::time_point::max()); }

private:
    void defer(board_clock::time_point due, std::function<void()> call);
    void make_until(board_clock::time_point now);
    void set_timer();

    kiv::unique_fd timer_;
    std::multimap<board_clock::time_point, std::function<void()>> calls_;
};

} // namespace kivboard
