// A directory of the board somewhere else, a clock that stands where it is set, and sleeps that take no time.
#pragma once

#include <sys/time.h>

#include <filesystem>
#include <string>

namespace zol_test
{

class fake_host
{
public:
    /// While it exists, the board's directory is this one, and kiv_thread_sleep() takes a hundredth of its
    /// time.
    explicit fake_host(const std::filesystem::path &directory, std::string of_the_board = "/var/log/zol");
    ~fake_host();
    fake_host(const fake_host &) = delete;
    fake_host &operator=(const fake_host &) = delete;

    /// From now on it is this time.
    void set_time(long seconds, long microseconds);

    /// For the wrappers.
    static std::string path(const char *path);
    static bool time(timeval &time);
    static unsigned long sleep_time(unsigned long us);
};

} // namespace zol_test
