#include "support/fake_host.h"

#include <atomic>
#include <string_view>
#include <utility>

namespace zol_test
{
namespace
{

std::string g_of_the_board; // empty: everything is real
std::string g_directory;
std::atomic<long long> g_microseconds{-1}; // below 0: the real clock

} // namespace

fake_host::fake_host(const std::filesystem::path &directory, std::string of_the_board)
{
    g_directory = directory;
    g_of_the_board = std::move(of_the_board);
}

fake_host::~fake_host()
{
    g_of_the_board.clear();
    g_microseconds = -1;
}

void fake_host::set_time(long seconds, long microseconds)
{
    g_microseconds = seconds * 1'000'000LL + microseconds;
}

std::string fake_host::path(const char *path)
{
    const std::string_view asked = path;
    const bool redirected = !g_of_the_board.empty() && asked.starts_with(g_of_the_board);
    return redirected ? g_directory + std::string(asked.substr(g_of_the_board.size())) : std::string(asked);
}

unsigned long fake_host::sleep_time(unsigned long us)
{
    return g_of_the_board.empty() ? us : us / 100;
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
