// The directory of the timing logs somewhere else, and a clock that stands where it is set.
#pragma once

#include <sys/time.h>

#include <filesystem>
#include <string>

namespace zol_test
{

class fake_host
{
public:
    /// While it exists, "/var/log/zol" is this directory.
    explicit fake_host(const std::filesystem::path &log_directory);
    ~fake_host();
    fake_host(const fake_host &) = delete;
    fake_host &operator=(const fake_host &) = delete;

    /// From now on it is this time.
    void set_time(long seconds, long microseconds);

    /// For the wrappers.
    static std::string path(const char *path);
    static bool time(timeval &time);
};

} // namespace zol_test
