#include "interrupt_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

namespace zol_tool
{

interrupt_queue::interrupt_queue() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

interrupt_queue::~interrupt_queue()
{
    close(descriptor_);
}

void interrupt_queue::operator()(int pin)
{
    const auto now = std::chrono::system_clock::now();
    {
        const std::scoped_lock lock(mutex_);
        waiting_.push_back({pin, now});
    }
    eventfd_write(descriptor_, 1);
}

std::vector<interrupt> interrupt_queue::take()
{
    eventfd_t count = 0;
    eventfd_read(descriptor_, &count);
    const std::scoped_lock lock(mutex_);
    return std::exchange(waiting_, {});
}

} // namespace zol_tool
