// Lines of the GPIO character devices, interface version 2, and the chips that the configuration names.
//
// A line is one descriptor: it takes the ioctl calls for levels and configuration, and delivers the events.

#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/text.h"
#include "common/unique_fd.h"
#include "gpio.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_config.h"
#include "zol/kiv_status.h"

using kiv::call_site;
using namespace kiv::gpio;

namespace
{

constexpr int most_chips = 16;
constexpr int most_nodes = 256; // /dev/gpiochip0 and so on, where a label is looked for
constexpr int32_t last_first_pin = 65'535;

// The kernel allocates its buffer when edges are first detected: 24 KiB, which it finds in one piece even when
// its memory is fragmented. That is 50 ms at 10,000 edges a second.
constexpr unsigned buffered_events = 512;
constexpr std::size_t events_at_once = 64;

struct chip {
    char dev[64]; // node or label
    int first;    // pin number of line 0
    int lines;
};

chip g_chips[most_chips] KIV_GUARDED_BY(g_gpio_db.lock);
int g_chips_num KIV_GUARDED_BY(g_gpio_db.lock);

// "gpio_chip_0_first", "gpio_17_bias"
struct key {
    char text[48];

    key(const char *object, int number, const char *name) noexcept
    {
        std::snprintf(text, sizeof text, "%s_%d_%s", object, number, name);
    }
};

int32_t read_text(const char *key, char *text, std::size_t size)
{
    return kiv_config_get_param("general", "", key, text, size);
}

// Reads a number that may be missing. @return False, after a line in the log, when it is not within 0 to most.
bool read_number(call_site site, const char *key, int32_t most, int32_t &value)
{
    char text[32];
    int32_t found = -1;
    if (read_text(key, text, sizeof text) == 0) {
        return true;
    }
    if (kiv_atoi(text, &found) != KIV_OK || found < 0 || found > most) {
        KIV_LOG_AT(site, ERRR, "%s is \"%s\", not 0 to %d\n", key, text, most);
        return false;
    }
    value = found;
    return true;
}

// @return Not open, with errno set, when it is no chip.
kiv::unique_fd open_node(const char *path, gpiochip_info &info)
{
    kiv::unique_fd fd(static_cast<int>(TEMP_FAILURE_RETRY(open(path, O_RDWR | O_CLOEXEC))));
    if (fd.is_open() && ioctl(fd.get(), GPIO_GET_CHIPINFO_IOCTL, &info) != 0) {
        fd.reset();
    }
    return fd;
}

// Several chips may have one label: the first of them counts.
kiv::unique_fd open_labelled(const char *label, gpiochip_info &info)
{
    int error = ENODEV;
    for (int i = 0; i < most_nodes; ++i) {
        char path[32];
        std::snprintf(path, sizeof path, "/dev/gpiochip%d", i);
        kiv::unique_fd fd = open_node(path, info);
        if (fd.is_open() && std::strcmp(info.label, label) == 0) {
            return fd;
        }
        error = fd.is_open() || errno == ENOENT ? error : errno;
    }
    errno = error;
    return kiv::unique_fd();
}

kiv::unique_fd open_chip(const char *dev, gpiochip_info &info)
{
    return std::strchr(dev, '/') != nullptr ? open_node(dev, info) : open_labelled(dev, info);
}

bool overlaps_another(call_site site, int number, const chip &added) KIV_REQUIRES(g_gpio_db.lock)
{
    const int end = added.first + added.lines;
    for (const chip *other = g_chips; other != g_chips + g_chips_num; ++other) {
        const int other_end = other->first + other->lines;
        if (added.first < other_end && other->first < end) {
            KIV_LOG_AT(site, ERRR, "gpio_chip_%d_first: the pins %d to %d of %s overlap %d to %d of %s\n",
                       number, added.first, end - 1, added.dev, other->first, other_end - 1, other->dev);
            return true;
        }
    }
    return false;
}

bool find_chip(call_site site, int number, chip &found) KIV_REQUIRES(g_gpio_db.lock)
{
    gpiochip_info info = {};
    found = {};
    read_text(key("gpio_chip", number, "dev").text, found.dev, sizeof found.dev);
    if (!read_number(site, key("gpio_chip", number, "first").text, last_first_pin, found.first)) {
        return false;
    }
    if (!open_chip(found.dev, info).is_open()) {
        KIV_LOG_AT(site, ERRR, "gpio_chip_%d_dev: the chip \"%s\" does not open, errno %d\n", number,
                   found.dev, errno);
        return false;
    }
    found.lines = static_cast<int>(info.lines);
    return !overlaps_another(site, number, found);
}

const chip *chip_of(int gpio) KIV_REQUIRES(g_gpio_db.lock)
{
    for (const chip *each = g_chips; each != g_chips + g_chips_num; ++each) {
        if (gpio >= each->first && gpio - each->first < each->lines) {
            return each;
        }
    }
    return nullptr;
}

// The kernel takes these flags only together with a direction.
struct bias {
    const char *name;
    std::uint64_t flag;
};

constexpr bias biases[] = {
    {"pull-up", GPIO_V2_LINE_FLAG_BIAS_PULL_UP},
    {"pull-down", GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN},
    {"disabled", GPIO_V2_LINE_FLAG_BIAS_DISABLED},
};

// @return False after a line in the log.
bool read_bias(call_site site, int gpio, std::uint64_t &flags)
{
    char text[32];
    const key name("gpio", gpio, "bias");
    if (read_text(name.text, text, sizeof text) == 0) {
        return true;
    }
    for (const bias &each : biases) {
        if (std::strcmp(text, each.name) == 0) {
            flags |= each.flag;
            return true;
        }
    }
    KIV_LOG_AT(site, ERRR, "%s is \"%s\", not pull-up, pull-down or disabled\n", name.text, text);
    return false;
}

// @return False after a line in the log.
bool read_settings(call_site site, int gpio, line_state &line)
{
    int32_t is_active_low = 0;
    int32_t debounce_us = 0;
    if (!read_number(site, key("gpio", gpio, "active_low").text, 1, is_active_low) ||
        !read_number(site, key("gpio", gpio, "debounce_us").text, INT32_MAX, debounce_us) ||
        !read_bias(site, gpio, line.flags)) {
        return false;
    }
    line.flags |= is_active_low != 0 ? GPIO_V2_LINE_FLAG_ACTIVE_LOW : 0;
    line.debounce_us = static_cast<std::uint32_t>(debounce_us);
    return true;
}

// An output has a level, and an input its debounce time. The kernel refuses unused attributes that are not zero.
gpio_v2_line_config configuration(const line_state &line, std::uint64_t flags, std::uint64_t level = 0)
{
    gpio_v2_line_config made = {};
    gpio_v2_line_attribute &attribute = made.attrs[0].attr;
    made.flags = line.flags | flags;
    if ((flags & GPIO_V2_LINE_FLAG_OUTPUT) != 0) {
        attribute.id = GPIO_V2_LINE_ATTR_ID_OUTPUT_VALUES;
        attribute.values = level;
    } else if (line.debounce_us != 0) {
        attribute.id = GPIO_V2_LINE_ATTR_ID_DEBOUNCE;
        attribute.debounce_period_us = line.debounce_us;
    }
    made.num_attrs = attribute.id != 0 ? 1 : 0;
    made.attrs[0].mask = made.num_attrs; // the bit of the line, which is the only one
    return made;
}

// @return False after a line in the log.
bool configure(call_site routine, gpio_item &item, std::uint64_t flags, std::uint64_t level = 0)
{
    gpio_v2_line_config wanted = configuration(item.line, flags, level);
    const bool is_done = ioctl(item.fds[irq], GPIO_V2_LINE_SET_CONFIG_IOCTL, &wanted) == 0;
    item.line.is_output = is_done && (flags & GPIO_V2_LINE_FLAG_OUTPUT) != 0;
    if (!is_done) {
        KIV_LOG_AT(routine, ERRR, "gpio %d: its line cannot be configured, errno %d\n", item.gpio, errno);
    }
    return is_done;
}

void report_refusal(call_site site, int gpio, int chip_fd, unsigned offset, const char *dev)
{
    const int error = errno;
    gpio_v2_line_info info = {};
    info.offset = offset;
    if (error == EBUSY && ioctl(chip_fd, GPIO_V2_GET_LINEINFO_IOCTL, &info) == 0) {
        KIV_LOG_AT(site, ERRR, "gpio %d: line %u of %s is in use by \"%s\"\n", gpio, offset, dev,
                   info.consumer);
    } else {
        KIV_LOG_AT(site, ERRR, "gpio %d: line %u of %s is refused, errno %d\n", gpio, offset, dev, error);
    }
}

// Takes the line as it is, unless it has a bias or a debounce time: those need an input.
int32_t request_line(call_site site, gpio_item &item) KIV_REQUIRES(g_gpio_db.lock)
{
    line_state &line = item.line;
    if (!read_settings(site, item.gpio, line)) {
        return KIV_ERR_INVALID_PARAM;
    }
    const chip &owner = *chip_of(item.gpio);
    gpiochip_info info = {};
    const kiv::unique_fd fd = open_chip(owner.dev, info);
    gpio_v2_line_request request = {};
    request.offsets[0] = static_cast<unsigned>(item.gpio - owner.first);
    request.num_lines = 1;
    request.event_buffer_size = buffered_events;
    kiv::copy_bounded(request.consumer, sizeof request.consumer, item.name.get());
    const bool needs_input =
        (line.flags | GPIO_V2_LINE_FLAG_ACTIVE_LOW) != GPIO_V2_LINE_FLAG_ACTIVE_LOW || line.debounce_us != 0;
    request.config = configuration(line, needs_input ? GPIO_V2_LINE_FLAG_INPUT : 0);
    if (!fd.is_open() || ioctl(fd.get(), GPIO_V2_GET_LINE_IOCTL, &request) != 0) {
        report_refusal(site, item.gpio, fd.get(), request.offsets[0], owner.dev);
        return KIV_ERR_OPEN;
    }
    item.fds[set_level] = item.fds[get_level] = item.fds[irq] = request.fd;
    if (fcntl(request.fd, F_SETFL, O_NONBLOCK) != 0) {
        report_refusal(site, item.gpio, fd.get(), request.offsets[0], owner.dev);
        return KIV_ERR_SYSTEM;
    }
    return KIV_OK;
}

// The kernel refuses to set an input, and a pin with a callback is one.
void set_line_level(gpio_item &item, int value)
{
    const call_site routine = {"__user_pins_set_val", __LINE__};
    gpio_v2_line_values level = {value != 0 ? 1U : 0U, 1};
    if (!item.line.is_output && item.cbk == nullptr) {
        configure(routine, item, GPIO_V2_LINE_FLAG_OUTPUT, level.bits);
    } else if (ioctl(item.fds[set_level], GPIO_V2_LINE_SET_VALUES_IOCTL, &level) != 0) {
        KIV_LOG_AT(routine, ERRR, "gpio %d is not set, errno %d%s\n", item.gpio, errno,
                   item.cbk != nullptr ? ": it has a callback, so it is an input" : "");
    }
}

int get_line_level(gpio_item &item)
{
    gpio_v2_line_values level = {0, 1};
    if (ioctl(item.fds[get_level], GPIO_V2_LINE_GET_VALUES_IOCTL, &level) != 0) {
        KIV_LOG_AS("__user_pins_sysfs_read", ERRR, "gpio %d is not read, errno %d\n", item.gpio, errno);
    }
    return static_cast<int>(level.bits & 1);
}

// The numbers of the events tell how many the kernel has dropped.
bool take_line_events(gpio_item &item, long long &count, bool is_logged)
{
    gpio_v2_line_event events[events_at_once];
    ssize_t got = 0;
    std::uint32_t last = item.line.last_event;
    count = 0;
    do {
        got = TEMP_FAILURE_RETRY(read(item.fds[irq], events, sizeof events));
        if (got > 0) {
            const std::size_t number = static_cast<std::size_t>(got) / sizeof events[0];
            count += static_cast<long long>(number);
            last = events[number - 1].line_seqno;
        }
    } while (got == sizeof events && count < buffered_events);
    const bool is_failed = got < 0 && errno != EAGAIN;
    if (is_failed && is_logged) {
        KIV_LOG_AS("__user_pins_sysfs_read", ERRR, "gpio %d is not read, errno %d\n", item.gpio, errno);
    }
    const std::uint32_t lost = last - item.line.last_event - static_cast<std::uint32_t>(count);
    item.line.last_event = last;
    if (lost != 0) {
        KIV_LOG_AS("__listener_process_events", ERRR,
                   "gpio %d has lost %u interrupts: they came faster than they were read\n", item.gpio, lost);
    }
    return !is_failed || count > 0;
}

constexpr call_site configuring = {"__user_pins_set_irqconfig", __LINE__};

static_assert(KIV_GPIO_EDGE_RISING * GPIO_V2_LINE_FLAG_EDGE_RISING == GPIO_V2_LINE_FLAG_EDGE_RISING &&
              KIV_GPIO_EDGE_FALLING * GPIO_V2_LINE_FLAG_EDGE_RISING == GPIO_V2_LINE_FLAG_EDGE_FALLING);

int32_t detect_edges(call_site site, gpio_item &item, interrupt_cause cause)
{
    if (cause.level_edge != KIV_GPIO_EDGE || cause.edge_cfg < KIV_GPIO_EDGE_RISING ||
        cause.edge_cfg > KIV_GPIO_EDGE_BOTH) {
        KIV_LOG_AT(site, ERRR,
                   "gpio %d: level_edge %d, edge_cfg %d: a line of a GPIO chip has edges only, 1 to 3\n",
                   item.gpio, cause.level_edge, cause.edge_cfg);
        return KIV_ERR_INVALID_PARAM;
    }
    const auto edges = static_cast<std::uint64_t>(cause.edge_cfg) * GPIO_V2_LINE_FLAG_EDGE_RISING;
    const bool is_done = configure(configuring, item, GPIO_V2_LINE_FLAG_INPUT | edges);
    return is_done ? KIV_OK : KIV_ERR_SYSTEM;
}

// Events that are still in the kernel are not for the next callback.
void stop_detection(gpio_item &item)
{
    long long ignored = 0;
    configure(configuring, item, GPIO_V2_LINE_FLAG_INPUT);
    take_line_events(item, ignored, false);
}

} // namespace

constinit const pin_kind kiv::gpio::chip_line = {
    request_line, detect_edges, stop_detection, set_line_level, get_line_level, take_line_events,
};

void kiv::gpio::find_chips(call_site site)
{
    int32_t configured = 0;
    g_chips_num = 0;
    read_number(site, "gpio_chips_num", most_chips, configured);
    for (int number = 0; number < configured; ++number) {
        g_chips_num += find_chip(site, number, g_chips[g_chips_num]) ? 1 : 0;
    }
}

bool kiv::gpio::is_chip_line(int gpio)
{
    return chip_of(gpio) != nullptr;
}
