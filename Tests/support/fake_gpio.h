// The board's pins without a board: the library's calls on their nodes come here, through --wrap.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace zol_test
{

enum gpio_failure { on_nothing, on_read, on_write, on_seek };

/// A node of a pin, used on any thread.
struct fake_gpio_node {
    std::string name; // "17 irq"

    /// Counts interrupts. An open node is a duplicate, so all who have an "irq" open share one count.
    kiv::unique_fd line{eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};

    std::atomic<gpio_failure> failing = on_nothing; // with EIO
    std::atomic<const char *> text = nullptr;       // what is read; null: the interrupts, which are taken

    bool fails(gpio_failure operation);
};

/// Has every pin that is asked for while it exists.
class fake_gpio
{
public:
    fake_gpio() { installed_ = this; }
    ~fake_gpio() { installed_ = nullptr; }
    fake_gpio(const fake_gpio &) = delete;
    fake_gpio &operator=(const fake_gpio &) = delete;

    fake_gpio_node &node(int pin, const std::string &name) { return find(std::to_string(pin) + " " + name); }

    /// Counts interrupts of a pin, open or not. "irq" is readable until they are taken.
    void raise(int pin, std::uint64_t count = 1) { eventfd_write(node(pin, "irq").line.get(), count); }

    /// From now on "irq" is like an attribute of an ordinary sysfs: readable at all times, an interrupt shows
    /// by POLLPRI and POLLERR.
    void act_like_sysfs(int pin) { sysfs_node_ = &node(pin, "irq"); }

    /// Takes the writes since the last call, in order: "17 irqrequest 1\0".
    std::vector<std::string> take_writes();

    /// Counts the descriptors that it has for itself.
    long own_descriptors();

    /// For the wrappers.
    static fake_gpio *installed() { return installed_.load(std::memory_order_relaxed); }
    static bool has(const char *path);
    static fake_gpio_node *of(int fd); // null when the descriptor is none of a node
    static void forget(int fd);
    int open(const char *path);
    ssize_t write(fake_gpio_node &node, const char *data, std::size_t size);
    static ssize_t read(fake_gpio_node &node, int fd, char *data, std::size_t size);
    static off_t seek(fake_gpio_node &node) { return node.fails(on_seek) ? -1 : 0; }
    int poll(pollfd *fds, nfds_t count, int timeout);

private:
    fake_gpio_node &find(const std::string &name);

    inline static std::atomic<fake_gpio *> installed_;
    std::mutex mutex_; // not taken on the way of a plain interrupt: it would hide races of the library
    std::map<std::string, fake_gpio_node> nodes_;
    std::vector<std::string> writes_;
    std::atomic<fake_gpio_node *> sysfs_node_ = nullptr;
};

} // namespace zol_test
