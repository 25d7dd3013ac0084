// The signals that ask the program to end.
#pragma once

#include <chrono>
#include <csignal>
#include <optional>

namespace zol_tool
{

using steady_time = std::chrono::steady_clock::time_point;

/// Holds the signals back, so that a command first releases what it has. Made before the library starts.
class interruption
{
public:
    interruption();
    ~interruption();
    interruption(const interruption &) = delete;
    interruption &operator=(const interruption &) = delete;

    /// Readable when a signal has come.
    [[nodiscard]] int descriptor() const { return descriptor_; }
    /// The signal that has come, or 0.
    int signal();
    /// @return True if a signal comes before the time.
    bool comes_before(steady_time time);

private:
    sigset_t before_;
    int descriptor_;
    int signal_ = 0;
};

/// The time until then for ppoll(); null, for ever, if there is none.
class time_left
{
public:
    explicit time_left(std::optional<steady_time> then);
    [[nodiscard]] const timespec *get() const { return is_limited_ ? &left_ : nullptr; }

private:
    timespec left_ = {};
    bool is_limited_;
};

/// The exit status of a command that a signal has ended. The program then ends by the same signal.
constexpr int status_of_signal(int signal)
{
    return 128 + signal;
}

/// Ends the program by a signal if the exit status says so.
void end_by_signal(int status);

} // namespace zol_tool
