#include "timing_progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>

namespace zol_tools
{
namespace
{

constexpr auto patience = std::chrono::milliseconds(300); // a short step needs no bar
constexpr auto interval = std::chrono::milliseconds(50);
constexpr std::uint64_t looks = 500;
constexpr std::size_t width = 30;

} // namespace

progress::progress(std::string step, std::uint64_t total)
    : step_(std::move(step)), total_(total),
      next_look_(total > 0 && isatty(STDERR_FILENO) != 0 ? 0 : std::numeric_limits<std::uint64_t>::max()),
      next_show_(clock::now() + patience)
{
}

progress::~progress()
{
    if (is_shown_) {
        std::fputs("\r\033[K", stderr);
    }
}

void progress::look(std::uint64_t done)
{
    next_look_ = done + total_ / looks + 1;
    const auto now = clock::now();
    if (now < next_show_) {
        return;
    }
    next_show_ = now + interval;
    is_shown_ = true;
    done = std::min(done, total_);
    const auto filled = static_cast<std::size_t>(done * width / total_);
    std::fprintf(stderr, "\r\033[K[%s%s] %3d %%  %s", std::string(filled, '#').c_str(),
                 std::string(width - filled, '.').c_str(), static_cast<int>(done * 100 / total_),
                 step_.c_str());
}

} // namespace zol_tools
