#include "support/fake_gpio.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "common/cancellation.h"

extern "C" int __real_poll(pollfd *fds, nfds_t count, int timeout);

namespace zol_test
{
namespace
{

constexpr std::string_view directory = "/sys/user_hw/pins/gpios/gpio_";

std::atomic<fake_gpio_node *> g_nodes[20'000]; // by descriptor

} // namespace

bool fake_gpio_node::fails(gpio_failure operation)
{
    const bool result = failing.load(std::memory_order_relaxed) == operation;
    errno = result ? EIO : errno;
    return result;
}

bool fake_gpio::has(const char *path)
{
    return installed() != nullptr && std::string_view(path).starts_with(directory);
}

fake_gpio_node *fake_gpio::of(int fd)
{
    const bool is_known = fd >= 0 && fd < static_cast<int>(std::size(g_nodes));
    return is_known ? g_nodes[fd].load(std::memory_order_relaxed) : nullptr;
}

void fake_gpio::forget(int fd)
{
    g_nodes[fd] = nullptr;
}

fake_gpio_node &fake_gpio::find(const std::string &name)
{
    const std::scoped_lock lock(mutex_);
    fake_gpio_node &found = nodes_[name];
    found.name = name;
    return found;
}

std::vector<std::string> fake_gpio::take_writes()
{
    const std::scoped_lock lock(mutex_);
    return std::exchange(writes_, {});
}

long fake_gpio::own_descriptors()
{
    const std::scoped_lock lock(mutex_);
    return static_cast<long>(nodes_.size());
}

int fake_gpio::open(const char *path)
{
    std::string name = path + directory.size();
    std::replace(name.begin(), name.end(), '/', ' ');
    fake_gpio_node &opened = find(name);
    const int fd = dup(opened.line.get());
    if (fd >= 0) {
        g_nodes[fd] = &opened;
    }
    return fd;
}

ssize_t fake_gpio::write(fake_gpio_node &node, const char *data, std::size_t size)
{
    if (node.fails(on_write)) {
        return -1;
    }
    const std::scoped_lock lock(mutex_);
    writes_.push_back(node.name + " " + std::string(data, size));
    return static_cast<ssize_t>(size);
}

ssize_t fake_gpio::read(fake_gpio_node &node, int fd, char *data, std::size_t size)
{
    if (node.fails(on_read)) {
        return -1;
    }
    eventfd_t count = 0;
    const kiv::cancellation_off uncancelled; // as in the bare read that this stands for
    eventfd_read(fd, &count); // by the library's own descriptor, which may be somebody else's by now
    const char *const text = node.text;
    return static_cast<ssize_t>((text != nullptr ? text : std::to_string(count) + "\n").copy(data, size));
}

// Asks the line by POLLIN whether there are interrupts, and translates.
int fake_gpio::poll(pollfd *fds, nfds_t count, int timeout)
{
    fake_gpio_node *const node = sysfs_node_;
    pollfd *const end = fds + count;
    pollfd *const entry =
        std::find_if(fds, end, [node](const pollfd &each) { return node != nullptr && of(each.fd) == node; });
    if (entry == end) {
        return __real_poll(fds, count, timeout);
    }
    const short events = std::exchange(entry->events, POLLIN);
    int result = __real_poll(fds, count, (events & POLLIN) != 0 ? 0 : timeout);
    entry->events = events;
    const bool has_interrupts = entry->revents != 0;
    entry->revents = static_cast<short>((events & POLLIN) | (has_interrupts ? POLLPRI | POLLERR : 0));
    return result + (entry->revents != 0 && !has_interrupts ? 1 : 0);
}

} // namespace zol_test
