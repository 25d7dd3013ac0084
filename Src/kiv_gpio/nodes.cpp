// The nodes of a pin: text files of the board, or a pipe and a stored value in simulator mode.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "common/log_as.h"
#include "common/uninterrupted.h"
#include "gpio.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using namespace kiv::gpio;

namespace
{

// How a node is opened, and how that shows in the log.
struct node {
    const char *name;
    int flags;
    const char *routine;
    const char *label;
    const char *simulated_label; // null: a simulated pin does not have it
};

constexpr node nodes[fd_types] = {
    {"level", O_RDWR, "__set_level_open", "set level", "set level"},
    {"level", O_RDONLY, "__get_level_open", "get level", nullptr},
    {"irq", O_RDONLY, "__get_irq_open", "get irq", "irq"},
    {"irqmask", O_RDWR, "__get_irqmask_open", "get irqmask", "irqmask"},
    {"irqrequest", O_RDWR, "__get_irqrequest_open", "get irqrequest", "irqrequest"},
    {"irqconfig", O_RDWR, "__get_irqconfig_open", "get irqconfig", "irqconfig"},
};

// The routines that write the interrupt nodes, by the same types.
constexpr const char *writers[fd_types] = {
    nullptr,
    nullptr,
    nullptr,
    "__user_pins_set_irqmask",
    "__user_pins_irqrequest",
    "__user_pins_set_irqconfig",
};

int32_t open_board_node(gpio_item &item, fd_type type)
{
    const node &opened = nodes[type];
    char path[100];
    std::snprintf(path, sizeof path, "/sys/user_hw/pins/gpios/gpio_%d/%s", item.gpio, opened.name);
    const int fd = kiv::uninterrupted([&] { return open(path, opened.flags | O_CLOEXEC); });
    if (fd == -1) {
        KIV_LOG_AS(opened.routine, ERRR, "failed opening %s\n", path);
        return KIV_ERR_OPEN;
    }
    item.fds[type] = fd;
    KIV_LOG_AS(opened.routine, INF1, "%s fd = %d\n", opened.label, fd);
    return KIV_OK;
}

void write_node(const char *routine, int fd, const char *text, std::size_t size)
{
    const ssize_t result = kiv::uninterrupted([&] { return write(fd, text, size); });
    if (result < 1) {
        KIV_LOG_AS(routine, ERRR, "failed writing to fd=%d ret=%d, errno=%d!\n", fd, static_cast<int>(result),
                   errno);
    }
}

void set_board_level(gpio_item &item, int value)
{
    const char text[2] = {value != 0 ? '1' : '0', '\0'};
    write_node("__user_pins_set_val", item.fds[set_level], text, sizeof text);
}

int get_board_level(gpio_item &item)
{
    long long level = 0;
    return __user_pins_sysfs_read(item.fds[get_level], level) && level != 0 ? 1 : 0;
}

void write_board_irq(gpio_item &item, fd_type type, int value)
{
    char text[64] = {};
    std::snprintf(text, sizeof text, "%d", value);
    write_node(writers[type], item.fds[type], text, type == irqconfig ? sizeof text : 2);
}

int32_t open_simulated_pipe(gpio_item &item)
{
    const node &opened = nodes[set_level];
    if (pipe2(item.sim_pipe, O_CLOEXEC) != 0) {
        KIV_LOG_AS(opened.routine, ERRR, "Failed to create pipe.\n");
        return KIV_ERR_SYSTEM;
    }
    item.fds[set_level] = item.sim_pipe[1];
    KIV_LOG_AS(opened.routine, INF1, "%s fd = %d\n", opened.simulated_label, item.fds[set_level]);
    return KIV_OK;
}

int32_t open_simulated_node(gpio_item &item, fd_type type)
{
    if (type == set_level) {
        return open_simulated_pipe(item);
    }
    const node &opened = nodes[type];
    if (opened.simulated_label == nullptr) {
        KIV_LOG_AS(opened.routine, INF1, "get level dummy fd used.\n");
        return KIV_OK;
    }
    if (item.sim_pipe[0] == 0 || item.sim_pipe[1] == 0) {
        KIV_LOG_AS(opened.routine, ERRR, "FDs should have been created before calling this function.\n");
        return KIV_ERR_SYSTEM;
    }
    item.fds[type] = item.sim_pipe[0];
    KIV_LOG_AS(opened.routine, INF1, "%s fd = %d\n", opened.simulated_label, item.fds[type]);
    return KIV_OK;
}

void set_simulated_level(gpio_item &item, int value)
{
    item.sim_value = value;
}

int get_simulated_level(gpio_item &item)
{
    return item.sim_value;
}

void write_simulated_irq(gpio_item &item, fd_type, int value)
{
    item.sim_value = value;
}

} // namespace

constinit const pin_kind kiv::gpio::board_pin = {open_board_node, set_board_level, get_board_level,
                                                 write_board_irq};
constinit const pin_kind kiv::gpio::simulated_pin = {open_simulated_node, set_simulated_level,
                                                     get_simulated_level, write_simulated_irq};

int32_t kiv::gpio::open_node(gpio_item &item, fd_type type)
{
    return item.fds[type] != -1 ? KIV_OK : item.kind->open(item, type);
}

// In this order: once it is unmasked, the interrupt must be what it is meant to be.
void kiv::gpio::enable_interrupt(gpio_item &item)
{
    item.kind->write_irq(item, irqrequest, 1);
    item.kind->write_irq(item, irqconfig, item.level_edge);
    item.kind->write_irq(item, irqmask, 0);
}

bool __user_pins_sysfs_read(int fd, long long &value)
{
    if (const off_t result = lseek(fd, 0, SEEK_SET); result < 0) {
        KIV_LOG_ERRR("failed seeking fd=%d ret=%d, errno=%d!\n", fd, static_cast<int>(result), errno);
        return false;
    }
    char text[20 + 1];
    const ssize_t got = kiv::uninterrupted([&] { return read(fd, text, sizeof text - 1); });
    if (got == 0) {
        KIV_LOG_ERRR("got EOF from fd%d\n", fd);
        return false;
    }
    if (got < 0) {
        KIV_LOG_ERRR("failed reading from fd=%d ret=%d, errno=%d!\n", fd, static_cast<int>(got), errno);
        return false;
    }
    text[got] = '\0';
    char *end = nullptr;
    value = std::strtoll(text, &end, 10);
    if (end == text) {
        KIV_LOG_ERRR("got no number from fd%d\n", fd);
        return false;
    }
    return true;
}

// Several types may share a descriptor: those of a simulated pin are the two ends of its pipe.
void kiv::gpio::close_nodes(gpio_item &item)
{
    if (item.kind == &simulated_pin && item.fds[set_level] != -1) {
        item.fds[irq] = item.sim_pipe[0]; // also where a request has failed half-way
    }
    for (int type = 0; type < fd_types; ++type) {
        const int fd = item.fds[type];
        if (fd == -1) {
            continue;
        }
        if (close(fd) != 0) {
            KIV_LOG_AS("__gpio_item_free", ERRR, "failed closing fd_type=%d fd=%d, errno %d\n", type, fd,
                       errno);
        }
        std::replace(std::begin(item.fds), std::end(item.fds), fd, -1);
    }
}
