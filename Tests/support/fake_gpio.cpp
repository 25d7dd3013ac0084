#include "support/fake_gpio.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "common/unique_fd.h"

namespace zol_test
{

// Whoever opens a node gets a duplicate of its line, so all who have an "irq" open share one count.
struct fake_gpio_node {
    std::string name; // "17 irq"
    kiv::unique_fd line{eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};
    std::atomic<bool> failing[static_cast<int>(gpio_operation::count)] = {};
    std::atomic<bool> has_text = false;
    std::string text;

    bool fails(gpio_operation operation)
    {
        const bool result = failing[static_cast<int>(operation)].load(std::memory_order_relaxed);
        errno = result ? EIO : errno;
        return result;
    }
};

namespace
{

constexpr std::string_view directory = "/sys/user_hw/pins/gpios/gpio_";

std::atomic<fake_gpio_node *> g_nodes[20'000]; // by descriptor

} // namespace

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

fake_gpio_node &fake_gpio::find(const std::string &path)
{
    const std::scoped_lock lock(mutex_);
    std::shared_ptr<fake_gpio_node> &found = nodes_[path];
    if (!found) {
        found = std::make_shared<fake_gpio_node>();
        found->name = path.substr(directory.size());
        std::replace(found->name.begin(), found->name.end(), '/', ' ');
    }
    return *found;
}

fake_gpio_node &fake_gpio::find(int pin, const std::string &name)
{
    return find(std::string(directory) + std::to_string(pin) + "/" + name);
}

void fake_gpio::raise(int pin, std::uint64_t count)
{
    eventfd_write(find(pin, "irq").line.get(), count);
}

void fake_gpio::set_text(int pin, const std::string &node, const std::string &text)
{
    fake_gpio_node &found = find(pin, node);
    const std::scoped_lock lock(mutex_);
    found.text = text;
    found.has_text = true;
}

void fake_gpio::fail(int pin, const std::string &node, gpio_operation operation)
{
    find(pin, node).failing[static_cast<int>(operation)] = true;
}

void fake_gpio::mend(int pin, const std::string &node)
{
    for (std::atomic<bool> &failing : find(pin, node).failing) {
        failing = false;
    }
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

int fake_gpio::open(const char *path, int flags)
{
    fake_gpio_node &opened = find(path);
    const bool to_write = (flags & O_ACCMODE) != O_RDONLY;
    if (opened.fails(to_write ? gpio_operation::open_to_write : gpio_operation::open_to_read)) {
        return -1;
    }
    const int fd = dup(opened.line.get());
    if (fd >= 0) {
        g_nodes[fd] = &opened;
    }
    return fd;
}

ssize_t fake_gpio::write(fake_gpio_node &node, const char *data, std::size_t size)
{
    if (node.fails(gpio_operation::write)) {
        return -1;
    }
    const std::scoped_lock lock(mutex_);
    writes_.push_back(node.name + " " + std::string(data, size));
    return static_cast<ssize_t>(size);
}

ssize_t fake_gpio::read(fake_gpio_node &node, int fd, char *data, std::size_t size)
{
    if (node.fails(gpio_operation::read)) {
        return -1;
    }
    eventfd_t count = 0;
    eventfd_read(fd, &count); // by the library's own descriptor: what it does is to depend on that one
    std::string text = std::to_string(count) + "\n";
    if (node.has_text) {
        const std::scoped_lock lock(mutex_);
        text = node.text;
    }
    return static_cast<ssize_t>(text.copy(data, size));
}

off_t fake_gpio::seek(fake_gpio_node &node)
{
    return node.fails(gpio_operation::seek) ? -1 : 0;
}

} // namespace zol_test
