// Does one operation a number of times: counted under a tool that counts instructions, twice with different
// numbers, the difference is the operation. Nothing else runs meanwhile: devices and files of the board are stand-ins,
// worker and writer are not started, and standard output leads nowhere.
//
//     zol_repeat OPERATION COUNT     COUNT is at most 1000
//     zol_repeat                     lists the operations

#include <fcntl.h>
#include <glib.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zol/zol.h"

namespace
{

constexpr kiv_i2c_handle unlogged_handle = {3, -1, 0x18};

void read_ours()
{
    kiv_i2c_handle handle = unlogged_handle;
    uint8_t value = 0;
    kiv_i2c_read_reg8(&handle, 0x0f, 1, &value);
}

void read_bare()
{
    uint8_t reg = 0x0f;
    uint8_t value = 0;
    i2c_msg messages[] = {{0x18, 0, 1, &reg}, {0x18, I2C_M_RD, 1, &value}};
    i2c_rdwr_ioctl_data request = {messages, 2};
    ioctl(3, I2C_RDWR, &request);
}

void write_ours()
{
    kiv_i2c_handle handle = unlogged_handle;
    const uint8_t value = 0x5a;
    kiv_i2c_write_reg8(&handle, 0x0f, 1, &value);
}

void write_bare()
{
    uint8_t bytes[] = {0x0f, 0x5a};
    i2c_msg message = {0x18, 0, 2, bytes};
    i2c_rdwr_ioctl_data request = {&message, 1};
    ioctl(3, I2C_RDWR, &request);
}

void nothing() {}

void disabled_log()
{
    KIV_LOG_INF1("%d\n", 1);
}

void enabled_log()
{
    static const bool redirected = [] {
        g_debugLevel = 2;
        return std::freopen("/dev/null", "w", stdout) != nullptr;
    }();
    static int value = 0;
    if (redirected) {
        KIV_LOG_PRNT("sensor %d answers with 0x%02x\n", value++ & 0xff, 0x5a);
    }
}

// Taken by a worker that is not started: the sender's part.
void async_send()
{
    static kiv_thread thread;
    static const bool created = [] {
        const kiv_thread_params params = {"count", 1, [](kiv_thread *, kiv_message *) { return 0; }, -1,
                                          nullptr};
        return kiv_thread_create(&thread, &params) == KIV_OK;
    }();
    if (created) {
        kiv_thread_sendMsg(&thread, kiv_message_new(100, 0));
    }
}

// Into the pool, which nobody empties.
void timing_event()
{
    static kiv_tl_map_entry map[] = {{1, "lane", 0, {}}, {-1, nullptr, 0, {}}};
    static kiv_tl_ctx *const log = kiv_tl_init("count", map);
    kiv_tl(log, 1, KIV_TL_HIGH, nullptr);
}

// Into a pipe that holds them all.
void notify()
{
    static kiv_event_item *const event = [] {
        kiv_event_item *made = nullptr;
        kiv_event_group *group = nullptr;
        kiv_events_init();
        kiv_events_create_group("count", &group);
        kiv_events_create_event("count", nullptr, group, &made);
        kiv_events_set_enable_event(made, 1);
        return made;
    }();
    kiv_events_notify(event, "12345678", 8, 0);
}

void pin_set()
{
    static const bool requested = kiv_gpio_request(17, "count") == KIV_OK;
    kiv_gpio_set(17, requested ? 1 : 0);
}

void pin_get()
{
    static const bool requested = kiv_gpio_request(17, "count") == KIV_OK;
    if (requested) {
        int value = 0;
        kiv_gpio_get(17, &value);
    }
}

constexpr struct {
    const char *name;
    void (*run)();
} operations[] = {{"read_ours", read_ours},       {"read_bare", read_bare},   {"write_ours", write_ours},
                  {"write_bare", write_bare},     {"nothing", nothing},       {"disabled_log", disabled_log},
                  {"enabled_log", enabled_log},   {"async_send", async_send}, {"notify", notify},
                  {"timing_event", timing_event}, {"pin_set", pin_set},       {"pin_get", pin_get}};

int make_node()
{
    const int fd = memfd_create("node", MFD_CLOEXEC);
    return write(fd, "1\n", 2) == 2 ? fd : -1;
}

} // namespace

// The stand-ins. A node of the board is a file in memory; a file in the log directory leads nowhere.
extern "C" {
int ioctl(int, unsigned long, ...) noexcept
{
    return 1;
}

int open(const char *, int, ...)
{
    return make_node();
}

// The same, called by a fortified library.
int __open_2(const char *, int)
{
    return make_node();
}

int mkdir(const char *, mode_t) noexcept
{
    return 0;
}

FILE *fopen(const char *, const char *mode)
{
    return fdopen(memfd_create("log", MFD_CLOEXEC), mode);
}

GThread *g_thread_try_new(const gchar *, GThreadFunc, gpointer, GError **)
{
    static char no_thread;
    return reinterpret_cast<GThread *>(&no_thread);
}
}

int main(int argc, char **argv)
{
    for (const auto &[name, run] : operations) {
        if (argc == 1) {
            std::puts(name);
        } else if (argc == 3 && std::strcmp(argv[1], name) == 0) {
            void (*volatile chosen)() = run;
            for (long left = std::strtol(argv[2], nullptr, 10); left > 0; --left) {
                chosen();
            }
            std::_Exit(0); // exit() would wait for the writer, which does not run
        }
    }
    return argc == 1 ? 0 : 2;
}
