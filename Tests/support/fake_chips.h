// GPIO chips without a kernel: the library's calls on /dev/gpiochipN and on their lines come here, through
// --wrap. A line is a pipe of events, so that poll() and read() are the kernel's own.
#pragma once

#include <fcntl.h>
#include <linux/gpio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"

extern "C" ssize_t __real_write(int fd, const void *data, std::size_t size);

namespace zol_test
{

/// Exists instead of the kernel's chips while it exists.
class fake_chips
{
public:
    struct chip {
        std::string label;
        unsigned lines;
    };

    explicit fake_chips(std::vector<chip> chips) : chips_(std::move(chips)) { installed_ = this; }
    ~fake_chips() { installed_ = nullptr; }
    fake_chips(const fake_chips &) = delete;
    fake_chips &operator=(const fake_chips &) = delete;

    std::string holder;            // not empty: all lines are in use by it
    int refusal = EBUSY;           // the errno of a request then
    std::vector<std::string> seen; // "request 1.3 lamp flags 0", "config flags 8 level 1", "set 0"
    std::uint64_t level = 0;       // of all lines

    /// An event of the line that was requested last. With a gap, the kernel has dropped so many before it.
    void raise(std::uint32_t gap = 0)
    {
        gpio_v2_line_event event = {};
        event.line_seqno = number_ += gap + 1;
        const ssize_t written = __real_write(line_.get(), &event, sizeof event);
        static_cast<void>(written);
    }

    /// From now on reading from that line fails with EISDIR.
    void break_line() const
    {
        const kiv::unique_fd directory(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        dup2(directory.get(), reading_end_);
    }

    /// Removes the chip of that line.
    void unbind() { line_.reset(); }

    /// For the wrappers.
    static fake_chips *of(const char *path) { return is_chip(path) ? installed_ : nullptr; }
    static fake_chips *of(unsigned long request)
    {
        return (request >> 8 & 0xff) == 0xB4 ? installed_ : nullptr;
    }

    int open(const char *path)
    {
        const auto number = static_cast<std::size_t>(std::atoi(path + prefix.size()));
        if (number >= chips_.size()) {
            errno = ENOENT;
            return -1;
        }
        const int fd = dup(0);
        numbers_[fd] = number;
        return fd;
    }

    int ioctl(int fd, unsigned long request, void *argument)
    {
        switch (request) {
        case GPIO_GET_CHIPINFO_IOCTL:
            return describe(numbers_[fd], *static_cast<gpiochip_info *>(argument));
        case GPIO_V2_GET_LINEINFO_IOCTL:
            std::strncpy(static_cast<gpio_v2_line_info *>(argument)->consumer, holder.c_str(), 31);
            return 0;
        case GPIO_V2_GET_LINE_IOCTL:
            return request_line(numbers_[fd], *static_cast<gpio_v2_line_request *>(argument));
        case GPIO_V2_LINE_SET_CONFIG_IOCTL:
            return configure(*static_cast<gpio_v2_line_config *>(argument));
        case GPIO_V2_LINE_SET_VALUES_IOCTL:
            return set(*static_cast<gpio_v2_line_values *>(argument));
        default:
            return get(*static_cast<gpio_v2_line_values *>(argument));
        }
    }

private:
    static constexpr std::string_view prefix = "/dev/gpiochip";

    static bool is_chip(const char *path) { return std::string_view(path).starts_with(prefix); }

    int describe(std::size_t number, gpiochip_info &info) const
    {
        std::strncpy(info.label, chips_[number].label.c_str(), sizeof info.label - 1);
        info.lines = chips_[number].lines;
        return 0;
    }

    int request_line(std::size_t number, gpio_v2_line_request &request)
    {
        if (!holder.empty() || request.num_lines != 1 || request.offsets[0] >= chips_[number].lines ||
            request.event_buffer_size < 512) {
            errno = holder.empty() ? EINVAL : refusal;
            return -1;
        }
        int ends[2];
        if (pipe(ends) != 0) {
            return -1;
        }
        request.fd = reading_end_ = ends[0];
        line_.reset(ends[1]);
        number_ = 0;
        flags_ = 0;
        seen.push_back("request " + std::to_string(number) + "." + std::to_string(request.offsets[0]) + " " +
                       request.consumer);
        return configure(request.config);
    }

    int configure(const gpio_v2_line_config &config)
    {
        if (config.attrs[config.num_attrs].mask != 0) {
            errno = EINVAL;
            return -1;
        }
        constexpr std::uint64_t edges = GPIO_V2_LINE_FLAG_EDGE_RISING | GPIO_V2_LINE_FLAG_EDGE_FALLING;
        if ((flags_ & edges) != 0 && (config.flags & edges) == 0) {
            raise(); // an edge just before
        }
        flags_ = config.flags;
        std::string text = "flags " + std::to_string(config.flags);
        for (unsigned i = 0; i < config.num_attrs; ++i) {
            const gpio_v2_line_attribute &set = config.attrs[i].attr;
            level = set.id == GPIO_V2_LINE_ATTR_ID_OUTPUT_VALUES ? set.values : level;
            text += set.id == GPIO_V2_LINE_ATTR_ID_OUTPUT_VALUES
                        ? " level " + std::to_string(set.values)
                        : " debounce " + std::to_string(set.debounce_period_us);
        }
        seen.push_back(text);
        return 0;
    }

    int get(gpio_v2_line_values &values) const
    {
        errno = ENODEV;
        values.bits = line_.is_open() ? level & values.mask : values.bits;
        return line_.is_open() ? 0 : -1;
    }

    int set(const gpio_v2_line_values &values)
    {
        if ((flags_ & GPIO_V2_LINE_FLAG_OUTPUT) == 0) {
            errno = EPERM;
            return -1;
        }
        level = values.bits & values.mask;
        seen.push_back("set " + std::to_string(level));
        return 0;
    }

    inline static fake_chips *installed_;
    std::vector<chip> chips_;
    std::map<int, std::size_t> numbers_; // of open chips, by descriptor
    kiv::unique_fd line_;
    int reading_end_ = -1; // the library's
    std::uint32_t number_ = 0;
    std::uint64_t flags_ = 0;
};

} // namespace zol_test
