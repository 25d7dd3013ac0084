// I2C registers: a table of buses from the configuration, and one I2C_RDWR ioctl per transfer.

#include "zol/kiv_i2c.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "common/text.h"
#include "common/unique_fd.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

namespace
{

struct i2c_bus {
    int32_t debug; // non-zero: log every open, close and transfer
    char dev[64];  // path of the node; one integer conversion in it stands for the bus number
};

constexpr int bus_path_size = sizeof(i2c_bus::dev);

// Both are written at start-up and shut-down, which run on one thread; between them only read.
i2c_bus g_buses[KIV_I2C_MAX_BUSES];
int32_t g_i2c_buses_num;

// Handles are records of the caller, so their numbers are checked before they are used as an index.
bool is_in_table(int32_t bus) noexcept
{
    return bus >= 0 && bus < KIV_I2C_MAX_BUSES;
}

// A handle that is not open has no bus record, so its transfers are not logged.
bool is_logged(const kiv_i2c_handle &handle) noexcept
{
    return handle.fd > 0 && is_in_table(handle.bus) && g_buses[handle.bus].debug != 0;
}

// Both keys are optional: what they do not say stays as it is set before.
void set_up_bus(int32_t index)
{
    i2c_bus &bus = g_buses[index];
    char key[64];
    bus.debug = 0;
    kiv::copy_bounded(bus.dev, sizeof bus.dev, "/dev/i2c-");
    std::snprintf(key, sizeof key, "i2c_bus_%d_debug", index);
    kiv_config_get_param_int("general", "", key, &bus.debug);
    std::snprintf(key, sizeof key, "i2c_bus_%d_dev", index);
    kiv_config_get_param("general", "", key, bus.dev, sizeof bus.dev);
}

// Puts the bus number into the node's path. The path comes from a file, so it is never used as a format:
// anything but one plain conversion is refused. It always fits: one digit takes the place of two characters.
bool format_bus_path(char (&path)[bus_path_size], int32_t bus) noexcept
{
    static_assert(KIV_I2C_MAX_BUSES <= 10, "a bus number is one digit");
    const std::string_view dev = g_buses[bus].dev;
    const std::size_t at = dev.find('%');
    if (at == std::string_view::npos) {
        kiv::copy_bounded(path, sizeof path, g_buses[bus].dev);
        return true;
    }
    std::string_view rest = dev;
    rest.remove_prefix(at + 1);
    constexpr std::string_view plain_conversions = "diuxXo";
    if (rest.empty() || plain_conversions.find(rest.front()) == std::string_view::npos ||
        rest.find('%') != std::string_view::npos) {
        return false;
    }
    std::memcpy(path, dev.data(), at);
    path[at] = static_cast<char>('0' + bus);
    kiv::copy_bounded(path + at + 1, sizeof path - at - 1, rest.data() + 1);
    return true;
}

kiv::unique_fd open_bus(char (&path)[bus_path_size], int32_t bus, kiv::call_site site)
{
    if (!KIV_HOLDS_AT(site, is_in_table(bus))) {
        KIV_LOG_AT(site, ERRR, "can't open bus %d: there are at most %d buses\n", bus, KIV_I2C_MAX_BUSES);
        return kiv::unique_fd();
    }
    if (!KIV_HOLDS_AT(site, format_bus_path(path, bus))) {
        KIV_LOG_AT(site, ERRR, "i2c_bus_%d_dev (%s) may hold one plain integer conversion and no other\n",
                   bus, g_buses[bus].dev);
        return kiv::unique_fd();
    }
    kiv::unique_fd fd(open(path, O_RDWR | O_CLOEXEC));
    if (!KIV_HOLDS_AT(site, fd.is_open())) {
        KIV_LOG_AT(site, ERRR, "can't open %s of bus %d: errno %d\n", path, bus, errno);
    } else if (!KIV_HOLDS_AT(site, fd.get() != 0)) { // 0 marks a handle that is not open
        KIV_LOG_AT(site, ERRR, "can't open %s of bus %d: standard input is closed\n", path, bus);
        fd.reset();
    }
    return fd;
}

// On a handle that is not open the descriptor is not an I2C node's, so the kernel refuses the request.
int transfer(const kiv_i2c_handle &handle, i2c_msg *messages, uint32_t count) noexcept
{
    i2c_rdwr_ioctl_data request = {messages, count};
    return ioctl(handle.fd, I2C_RDWR, &request);
}

struct register_address {
    uint8_t bytes[2]; // as sent: the high byte first
    uint16_t length;
};

constexpr register_address address8(uint8_t reg) noexcept
{
    return {{reg, 0}, 1};
}

constexpr register_address address16(uint16_t reg) noexcept
{
    return {{static_cast<uint8_t>(reg >> 8), static_cast<uint8_t>(reg & 0xff)}, 2};
}

// The reason behind the line about a failed transfer.
void log_failed_transfer(const kiv_i2c_handle &handle, int error, kiv::call_site site)
{
    KIV_LOG_AT(site, ERRR, "bus %d device 0x%x file %d: errno %d\n", handle.bus, handle.deviceAddress,
               handle.fd, error);
}

int32_t read_register(const kiv_i2c_handle *handle, register_address address, unsigned reg, int32_t count,
                      uint8_t *out, kiv::call_site site)
{
    if (!KIV_GIVEN_AT(site, handle != nullptr && out != nullptr, "no handle, or no buffer")) {
        return KIV_ERR_INVALID_PARAM;
    }
    const auto length = static_cast<uint16_t>(count);
    i2c_msg messages[] = {
        {handle->deviceAddress, 0, address.length, address.bytes},
        {handle->deviceAddress, I2C_M_RD, length, out},
    };
    const int result = transfer(*handle, messages, 2);
    const int error = errno; // logging may change it
    if (is_logged(*handle)) {
        KIV_LOG_AT(site, PRNT, "read : addr 0x%04x reg 0x%02x bytes %2d ret %d out 0x%x\n",
                   handle->deviceAddress, reg, count, result, length > 0 ? out[0] : 0);
    }
    if (result < 0) {
        KIV_LOG_AT(site, ERRR, "can't read register 0x%x ret %d\n", reg, result);
        log_failed_transfer(*handle, error, site);
        return KIV_ERR_NOT_FOUND;
    }
    return KIV_OK;
}

// Address and value go in one message: with a stop between them a device would take the value for an address.
int32_t write_byte(const kiv_i2c_handle &handle, register_address address, unsigned reg, uint8_t value,
                   kiv::call_site site)
{
    uint8_t bytes[sizeof address.bytes + 1];
    std::memcpy(bytes, address.bytes, sizeof address.bytes);
    bytes[address.length] = value;
    i2c_msg message = {handle.deviceAddress, 0, static_cast<uint16_t>(address.length + 1), bytes};
    const int result = transfer(handle, &message, 1);
    const int error = errno;
    if (is_logged(handle)) {
        KIV_LOG_AT(site, PRNT, "write deviceAddress 0x%04x deviceReg 0x%02x value 0x%x ret %d\n",
                   handle.deviceAddress, reg, value, result);
    }
    if (result < 0) {
        KIV_LOG_AT(site, ERRR, "write register 0x%x ret %d\n", reg, result);
        log_failed_transfer(handle, error, site);
        return KIV_ERR_WRITE;
    }
    return KIV_OK;
}

int32_t write_register(const kiv_i2c_handle *handle, register_address address, unsigned reg, uint32_t count,
                       const uint8_t *values, kiv::call_site site)
{
    if (count == 0) {
        return KIV_ERR_WRITE;
    }
    if (!KIV_GIVEN_AT(site, handle != nullptr && values != nullptr, "no handle, or no values")) {
        return KIV_ERR_INVALID_PARAM;
    }
    // All bytes go to one register, which may be a FIFO or a sequence of commands.
    int32_t status = KIV_OK;
    for (uint32_t i = 0; i < count && status == KIV_OK; ++i) {
        status = write_byte(*handle, address, reg, values[i], site);
    }
    return status;
}

} // namespace

int32_t kiv_i2c_init(void)
{
    int32_t configured = 0;
    const bool found = kiv_config_get_param_int("general", "", "i2c_buses_num", &configured) >= 1;
    if (!KIV_HOLDS(found)) {
        const bool exists = kiv_config_get_param("general", "", "i2c_buses_num", nullptr, 0) == 1;
        KIV_LOG_ERRR("general.i2c_buses_num is %s\n", exists ? "not a number" : "missing");
    }
    // The configured number is that of the last bus. Unsigned, so that a negative one means all of the table.
    const uint32_t count = static_cast<uint32_t>(configured) + (configured > 0 ? 1 : 0);
    KIV_LOG_PRNT("system with %d i2c buses\n", static_cast<int32_t>(count));
    kiv_i2c_deinit();
    if (!found) {
        return KIV_ERR_INVALID_PARAM;
    }
    int32_t set_up = 0;
    for (; set_up < KIV_I2C_MAX_BUSES && count > static_cast<uint32_t>(set_up); ++set_up) {
        set_up_bus(set_up);
    }
    g_i2c_buses_num = set_up;
    return KIV_OK;
}

int32_t kiv_i2c_deinit(void)
{
    std::memset(g_buses, 0, sizeof g_buses);
    return KIV_OK;
}

int32_t kiv_i2c_open(kiv_i2c_handle *handle, int32_t bus, uint16_t deviceAddress)
{
    char path[bus_path_size] = "";
    if (!KIV_HOLDS(bus < g_i2c_buses_num)) {
        KIV_LOG_ERRR("bus %d is not among the %d that i2c_buses_num sets up\n", bus, g_i2c_buses_num);
    }
    if (!KIV_GIVEN(handle != nullptr, "no handle")) {
        return KIV_ERR_OPEN;
    }
    kiv::unique_fd fd = open_bus(path, bus, kiv::call_site::here());
    if (is_in_table(bus) && g_buses[bus].debug != 0) {
        KIV_LOG_PRNT("open  bus %d - %s file %d deviceAddress 0x%x\n", bus, path, fd.get(), deviceAddress);
    }
    if (!fd.is_open()) {
        *handle = {0, -1, 0};
        return KIV_ERR_OPEN;
    }
    *handle = {fd.release(), bus, deviceAddress};
    return KIV_OK;
}

int32_t kiv_i2c_close(kiv_i2c_handle *handle)
{
    if (!KIV_GIVEN(handle != nullptr, "no handle")) {
        return KIV_OK;
    }
    if (is_logged(*handle)) {
        KIV_LOG_PRNT("close bus %d - file %d\n", handle->bus, handle->fd);
    }
    if (handle->fd > 0) {
        close(handle->fd);
        handle->fd = 0;
        handle->bus = -1;
    }
    return KIV_OK;
}

int32_t kiv_i2c_read_reg8(kiv_i2c_handle *handle, uint8_t reg, int32_t count, uint8_t *out)
{
    return read_register(handle, address8(reg), reg, count, out, kiv::call_site::here());
}

int32_t kiv_i2c_read_reg16(kiv_i2c_handle *handle, uint16_t reg, int32_t count, uint8_t *out)
{
    return read_register(handle, address16(reg), reg, count, out, kiv::call_site::here());
}

int32_t kiv_i2c_write_reg8(kiv_i2c_handle *handle, uint8_t reg, uint32_t count, const uint8_t *values)
{
    return write_register(handle, address8(reg), reg, count, values, kiv::call_site::here());
}

int32_t kiv_i2c_write_reg16(kiv_i2c_handle *handle, uint16_t reg, uint32_t count, const uint8_t *values)
{
    return write_register(handle, address16(reg), reg, count, values, kiv::call_site::here());
}
