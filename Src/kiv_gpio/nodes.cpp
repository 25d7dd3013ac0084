// The nodes of a pin: text files of the board, or a pipe and a stored value in simulator mode.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <span>

#include "common/bare_calls.h"
#include "gpio.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using kiv::call_site;
using namespace kiv::gpio;

namespace
{

// The way to open a node, and its names in the log.
struct node {
    const char *name;
    int flags;
    call_site routine;
    const char *label;
    const char *simulated_label; // null: a simulated pin does not have it
};

constexpr node nodes[fd_types] = {
    {"level", O_RDWR, {"__set_level_open", __LINE__}, "set level", "set level"},
    {"level", O_RDONLY, {"__get_level_open", __LINE__}, "get level", nullptr},
    {"irq", O_RDONLY, {"__get_irq_open", __LINE__}, "get irq", "irq"},
    {"irqmask", O_RDWR, {"__get_irqmask_open", __LINE__}, "get irqmask", "irqmask"},
    {"irqrequest", O_RDWR, {"__get_irqrequest_open", __LINE__}, "get irqrequest", "irqrequest"},
    {"irqconfig", O_RDWR, {"__get_irqconfig_open", __LINE__}, "get irqconfig", "irqconfig"},
};

// The routines that write the interrupt nodes, by the same types.
constexpr call_site writers[fd_types] = {
    {},
    {},
    {},
    {"__user_pins_set_irqmask", __LINE__},
    {"__user_pins_irqrequest", __LINE__},
    {"__user_pins_set_irqconfig", __LINE__},
};

// The nodes that an allocated pin has open, and how the log names them when they cannot be opened.
struct wanted_node {
    fd_type type;
    const char *name;
};

constexpr wanted_node nodes_of_a_pin[] = {{set_level, "set level"}, {get_level, "get level"}, {irq, "irq"}};
constexpr wanted_node nodes_of_an_interrupt[] = {
    {irq, "irq"}, {irqmask, "irq"}, {irqrequest, "irq"}, {irqconfig, "irq"}};

using node_opener = int32_t(gpio_item &item, fd_type type); // sets errno when it fails

// Opens the nodes that are not open yet.
int32_t open_nodes(call_site site, gpio_item &item, std::span<const wanted_node> wanted, node_opener *open)
{
    for (const auto &[type, name] : wanted) {
        const int32_t status = item.fds[type] != -1 ? KIV_OK : open(item, type);
        if (status != KIV_OK) {
            const int error = errno;
            KIV_LOG_AT(site, ERRR, "failed opening %s for gpio %d\n", name, item.gpio);
            KIV_LOG_AT(site, ERRR, "the node of gpio %d does not open, errno %d\n", item.gpio, error);
            return status;
        }
    }
    return KIV_OK;
}

int32_t open_board_node(gpio_item &item, fd_type type)
{
    const node &opened = nodes[type];
    char path[100];
    std::snprintf(path, sizeof path, "/sys/user_hw/pins/gpios/gpio_%d/%s", item.gpio, opened.name);
    const int fd = static_cast<int>(TEMP_FAILURE_RETRY(open(path, opened.flags | O_CLOEXEC)));
    if (fd == -1) {
        KIV_LOG_AT(opened.routine, ERRR, "failed opening %s\n", path);
        return KIV_ERR_OPEN;
    }
    item.fds[type] = fd;
    KIV_LOG_AT(opened.routine, INF1, "%s fd = %d\n", opened.label, fd);
    return KIV_OK;
}

void write_node(call_site routine, int fd, const char *text, std::size_t size)
{
    const ssize_t result = TEMP_FAILURE_RETRY(kiv::bare_write(fd, text, size));
    if (result < 1) {
        KIV_LOG_AT(routine, ERRR, "failed writing to fd=%d ret=%d, errno=%d!\n", fd, static_cast<int>(result),
                   errno);
    }
}

void set_board_level(gpio_item &item, int value)
{
    const char text[2] = {value != 0 ? '1' : '0', '\0'};
    write_node({"__user_pins_set_val", __LINE__}, item.fds[set_level], text, sizeof text);
}

int get_board_level(gpio_item &item)
{
    long long level = 0;
    return __user_pins_sysfs_read(item.fds[get_level], level, true) && level != 0 ? 1 : 0;
}

void write_board_irq(gpio_item &item, fd_type type, int value)
{
    char text[64] = {};
    std::snprintf(text, sizeof text, "%d", value);
    write_node(writers[type], item.fds[type], text, type == irqconfig ? sizeof text : 2);
}

int32_t open_board_pin(call_site site, gpio_item &item)
{
    return open_nodes(site, item, nodes_of_a_pin, open_board_node);
}

// Unmasks last: the interrupt must be configured by then.
int32_t enable_board_interrupt(call_site site, gpio_item &item, interrupt_cause cause)
{
    const int32_t status = open_nodes(site, item, nodes_of_an_interrupt, open_board_node);
    if (status == KIV_OK) {
        write_board_irq(item, irqrequest, 1);
        write_board_irq(item, irqconfig, cause.level_edge);
        write_board_irq(item, irqmask, 0);
    }
    return status;
}

// The board's interrupt stays requested and unmasked.
void keep_interrupt(gpio_item &) {}

bool take_board_interrupts(gpio_item &item, long long &count, bool is_logged)
{
    return __user_pins_sysfs_read(item.fds[irq], count, is_logged);
}

int32_t open_simulated_pipe(gpio_item &item)
{
    const node &opened = nodes[set_level];
    if (pipe2(item.sim_pipe, O_CLOEXEC) != 0) {
        KIV_LOG_AT(opened.routine, ERRR, "Failed to create pipe.\n");
        return KIV_ERR_SYSTEM;
    }
    item.fds[set_level] = item.sim_pipe[1];
    KIV_LOG_AT(opened.routine, INF1, "%s fd = %d\n", opened.simulated_label, item.fds[set_level]);
    return KIV_OK;
}

int32_t open_simulated_node(gpio_item &item, fd_type type)
{
    if (type == set_level) {
        return open_simulated_pipe(item);
    }
    const node &opened = nodes[type];
    if (opened.simulated_label == nullptr) {
        KIV_LOG_AT(opened.routine, INF1, "get level dummy fd used.\n");
        return KIV_OK;
    }
    if (item.sim_pipe[0] == 0 || item.sim_pipe[1] == 0) {
        KIV_LOG_AT(opened.routine, ERRR, "FDs should have been created before calling this function.\n");
        errno = EBADF;
        return KIV_ERR_SYSTEM;
    }
    item.fds[type] = item.sim_pipe[0];
    KIV_LOG_AT(opened.routine, INF1, "%s fd = %d\n", opened.simulated_label, item.fds[type]);
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

int32_t open_simulated_pin(call_site site, gpio_item &item)
{
    return open_nodes(site, item, nodes_of_a_pin, open_simulated_node);
}

int32_t enable_simulated_interrupt(call_site site, gpio_item &item, interrupt_cause)
{
    const int32_t status = open_nodes(site, item, nodes_of_an_interrupt, open_simulated_node);
    if (status == KIV_OK) {
        item.sim_value = 0; // the mask, which is written last
    }
    return status;
}

} // namespace

constinit const pin_kind kiv::gpio::board_pin = {
    open_board_pin,  enable_board_interrupt, keep_interrupt,
    set_board_level, get_board_level,        take_board_interrupts,
};
constinit const pin_kind kiv::gpio::simulated_pin = {
    open_simulated_pin,  enable_simulated_interrupt, keep_interrupt,
    set_simulated_level, get_simulated_level,        take_board_interrupts,
};

bool __user_pins_sysfs_read(int fd, long long &value, bool is_logged)
{
    char text[20 + 1];
    const char *step = "seeking";
    auto result = static_cast<ssize_t>(lseek(fd, 0, SEEK_SET));
    if (result >= 0) {
        step = "reading from";
        result = TEMP_FAILURE_RETRY(kiv::bare_read(fd, text, sizeof text - 1));
    }
    if (result < 0) {
        if (is_logged) {
            KIV_LOG_ERRR("failed %s fd=%d ret=%d, errno=%d!\n", step, fd, static_cast<int>(result), errno);
        }
        return false;
    }
    text[result] = '\0';
    char *end = nullptr;
    value = std::strtoll(text, &end, 10);
    if (end == text && is_logged) {
        KIV_LOG_ERRR("got %s from fd%d\n", result == 0 ? "EOF" : "no number", fd);
    }
    return end != text;
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
