#include "support/fake_host.h"

#include <atomic>
#include <string_view>

namespace zol_test
{
namespace
{

std::string g_log_directory;
std::atomic<long long> g_microseconds{-1}; // below 0: the real clock

} // namespace

fake_host::fake_host(const std::filesystem::path &log_directory)
{
    g_log_directory = log_directory;
}

fake_host::~fake_host()
{
    g_log_directory.clear();
    g_microseconds = -1;
}

void fake_host::set_time(long seconds, long microseconds)
{
    g_microseconds = seconds * 1'000'000LL + microseconds;
}

std::string fake_host::path(const char *path)
{
    constexpr std::string_view log_directory = "/var/log/zol";
    const std::string_view asked = path;
    const bool redirected = !g_log_directory.empty() && asked.starts_with(log_directory);
    return redirected ? g_log_directory + std::string(asked.substr(log_directory.size()))
                      : std::string(asked);
}

bool fake_host::time(timeval &time)
{
    const long long now = g_microseconds;
    if (now >= 0) {
        time.tv_sec = static_cast<time_t>(now / 1'000'000);
        time.tv_usec = static_cast<suseconds_t>(now % 1'000'000);
    }
    return now >= 0;
}

} // namespace zol_test
