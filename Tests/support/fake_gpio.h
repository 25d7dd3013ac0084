// The board's pins without a board: what the library opens, writes and reads of their nodes comes here.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zol_test
{

struct fake_gpio_node;

enum class gpio_operation { open_to_read, open_to_write, read, write, seek, count };

/// Has every pin that is asked for while it exists. The library's calls reach it through --wrap. A node may
/// be used on any thread.
class fake_gpio
{
public:
    fake_gpio() { installed_ = this; }
    ~fake_gpio() { installed_ = nullptr; }
    fake_gpio(const fake_gpio &) = delete;
    fake_gpio &operator=(const fake_gpio &) = delete;

    /// Counts interrupts of a pin. "irq" is readable until they are taken, as on a board whether or not it is
    /// open.
    void raise(int pin, std::uint64_t count = 1);

    /// What reading a node gives from now on; of "irq", instead of the count that is taken.
    void set_text(int pin, const std::string &node, const std::string &text);

    /// From now on an operation of a node fails with EIO.
    void fail(int pin, const std::string &node, gpio_operation operation);
    void mend(int pin, const std::string &node);

    /// What has been written since the last call, in order: "17 irqrequest 1\0".
    std::vector<std::string> take_writes();

    /// How many descriptors it has for itself.
    long own_descriptors();

    /// For the wrappers.
    static fake_gpio *installed() { return installed_.load(std::memory_order_relaxed); }
    static bool has(const char *path);
    static fake_gpio_node *of(int fd); // null when the descriptor is none of a node
    static void forget(int fd);
    int open(const char *path, int flags);
    ssize_t write(fake_gpio_node &node, const char *data, std::size_t size);
    ssize_t read(fake_gpio_node &node, int fd, char *data, std::size_t size);
    static off_t seek(fake_gpio_node &node);

private:
    fake_gpio_node &find(const std::string &path);
    fake_gpio_node &find(int pin, const std::string &name);

    inline static std::atomic<fake_gpio *> installed_;
    std::mutex mutex_; // not taken on the way of a plain interrupt: it would hide races of the library
    std::map<std::string, std::shared_ptr<fake_gpio_node>> nodes_;
    std::vector<std::string> writes_;
};

} // namespace zol_test
