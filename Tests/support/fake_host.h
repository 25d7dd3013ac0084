// A directory of the board in another place, a clock that stands still, sleeps that take little time, and another
// command line than the library's.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

namespace zol_test
{

class fake_host
{
public:
    fake_host() = default;

    /// While it exists, this directory takes the place of the board's, and kiv_thread_sleep() and the time-outs of
    /// workers take a thousandth of their time.
    explicit fake_host(const std::filesystem::path &directory, std::string of_the_board = "/var/log/zol")
    {
        directory_ = directory;
        of_the_board_ = std::move(of_the_board);
    }
    ~fake_host()
    {
        of_the_board_.clear();
        command_.clear();
        microseconds_ = -1;
    }
    fake_host(const fake_host &) = delete;
    fake_host &operator=(const fake_host &) = delete;

    /// From now on CLOCK_REALTIME shows this time.
    void set_time(long seconds, long microseconds) { microseconds_ = seconds * 1'000'000LL + microseconds; }

    /// From now on the library starts this command line instead of its own.
    void set_command(const std::string &command) { command_ = command; }

    /// For the wrappers.
    static std::string command(const char *own) { return command_.empty() ? own : command_; }

    static std::string path(const std::string &asked)
    {
        const bool redirected = !of_the_board_.empty() && asked.starts_with(of_the_board_);
        return redirected ? directory_ + asked.substr(of_the_board_.size()) : asked;
    }

    static bool time(clockid_t clock, timespec &time)
    {
        const long long now = clock == CLOCK_REALTIME ? microseconds_.load() : -1;
        if (now >= 0) {
            time = {static_cast<time_t>(now / 1'000'000), static_cast<long>(now % 1'000'000 * 1000)};
        }
        return now >= 0;
    }

    static std::uint64_t sleep_time(std::uint64_t us) { return of_the_board_.empty() ? us : us / 1000; }

private:
    inline static std::string of_the_board_; // empty: all paths are real
    inline static std::string directory_;
    inline static std::string command_;                     // empty: the library's own
    inline static std::atomic<long long> microseconds_{-1}; // below 0: the real clock
};

} // namespace zol_test
