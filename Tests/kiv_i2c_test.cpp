#include "zol/kiv_i2c.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "support/fake_i2c.h"
#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "support/scratch.h"
#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using zol_test::log_capture;
using strings = std::vector<std::string>;

namespace
{

class I2c : public testing::Test
{
protected:
    ~I2c() override
    {
        kiv_i2c_deinit();
        kiv_config_deinit();
    }

    // Bus 1 has a node, in the scratch directory.
    kiv_i2c_handle open_device()
    {
        const std::string path = scratch_.write("bus-1", "");
        file_ = scratch_.write(
            "conf.xml",
            zol_test::configuration(
                "<i2c_buses_num>1</i2c_buses_num><i2c_bus_1_debug>1</i2c_bus_1_debug><i2c_bus_1_dev>" + path +
                "</i2c_bus_1_dev>"));
        kiv_i2c_handle device = {};
        EXPECT_TRUE(kiv_config_init(file_.c_str()) == 1 && kiv_i2c_init() == KIV_OK);
        EXPECT_EQ(kiv_i2c_open(&device, 1, 0x50), KIV_OK);
        return device;
    }

    static bool is_empty(const kiv_i2c_handle &handle)
    {
        return handle.fd == 0 && handle.bus == -1 && handle.deviceAddress == 0;
    }

    zol_test::scratch_directory scratch_;
    std::string file_;
    zol_test::fake_i2c bus_;
};

TEST_F(I2c, ReadsInOneTransferAndWritesByteByByte)
{
    kiv_i2c_handle device = open_device();
    g_debugLevel = 2; // where the bus logs its transfers
    log_capture debug;
    bus_.answer = {0xde, 0xad, 0xbe};
    uint8_t out[4] = {0, 0, 0, 0x77};
    EXPECT_EQ(kiv_i2c_read_reg8(&device, 0x0f, 3, out), KIV_OK);
    EXPECT_EQ(kiv_i2c_read_reg16(&device, 0x1234, 1, out + 2), KIV_OK);
    EXPECT_EQ(kiv_i2c_read_reg8(&device, 1, 0, out), KIV_OK);
    EXPECT_EQ((std::vector<int>(out, out + 4)), (std::vector<int>{0xde, 0xad, 0xde, 0x77}));
    EXPECT_EQ(kiv_i2c_write_reg8(&device, 0x10, 2, out), KIV_OK);
    EXPECT_EQ(kiv_i2c_write_reg16(&device, 0x1234, 1, out), KIV_OK);
    EXPECT_EQ(debug.texts("PRNT"), (strings{"read : addr 0x0050 reg 0x0f bytes  3 ret 2 out 0xde",
                                            "read : addr 0x0050 reg 0x1234 bytes  1 ret 2 out 0xde",
                                            "read : addr 0x0050 reg 0x01 bytes  0 ret 2 out 0x0",
                                            "write deviceAddress 0x0050 deviceReg 0x10 value 0xde ret 1",
                                            "write deviceAddress 0x0050 deviceReg 0x10 value 0xad ret 1",
                                            "write deviceAddress 0x0050 deviceReg 0x1234 value 0xde ret 1"}));
    g_debugLevel = 1;
    EXPECT_EQ(bus_.transfers, (strings{"50 W[0f] R3", "50 W[12 34] R1", "50 W[01] R0", "50 W[10 de]",
                                       "50 W[10 ad]", "50 W[12 34 de]"}));

    bus_.counts = false;
    EXPECT_EQ(kiv_i2c_read_reg8(&device, 0x0f, 3, out) + kiv_i2c_write_reg8(&device, 0x10, 1, out), KIV_OK);
    bus_.transfers.clear();
    log_capture log;
    EXPECT_EQ(kiv_i2c_write_reg8(&device, 0x10, 0, out), KIV_ERR_WRITE);
    EXPECT_EQ(log.out(), "") << "nothing to write is refused without a word";
    bus_.fails_from = 1; // counted from 0
    EXPECT_EQ(kiv_i2c_write_reg8(&device, 0x10, 3, out), KIV_ERR_WRITE);
    EXPECT_EQ(bus_.transfers, strings{"50 W[10 de]"}) << "nothing is sent after the failure";
    EXPECT_EQ(kiv_i2c_read_reg8(&device, 0x0f, 3, out), KIV_ERR_NOT_FOUND);
    kiv_i2c_close(&device);
}

TEST_F(I2c, RefusesInvalidHandlesAndBuses)
{
    const long descriptors = zol_test::entries_of("/proc/self/fd");
    kiv_i2c_handle device = open_device();
    uint8_t value = 0;
    EXPECT_EQ(kiv_i2c_close(&device), KIV_OK);
    EXPECT_EQ(zol_test::entries_of("/proc/self/fd"), descriptors);
    EXPECT_TRUE(device.fd == 0 && device.bus == -1 && device.deviceAddress == 0x50);
    g_debugLevel = KIV_DEBUG_LEVEL_ALL;
    log_capture log;
    kiv_i2c_handle never_opened = {0, 1, 0x50};
    EXPECT_TRUE(kiv_i2c_close(&device) == KIV_OK && kiv_i2c_close(&never_opened) == KIV_OK);
    EXPECT_EQ(log.out(), "") << "there is nothing to close";
    EXPECT_TRUE(kiv_i2c_close(nullptr) == KIV_OK && kiv_i2c_open(nullptr, 1, 1) == KIV_ERR_OPEN);
    EXPECT_EQ(kiv_i2c_read_reg8(nullptr, 1, 1, &value), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_i2c_read_reg16(&device, 1, 1, nullptr), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_i2c_write_reg8(nullptr, 1, 1, &value), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(kiv_i2c_write_reg16(&device, 1, 1, nullptr), KIV_ERR_INVALID_PARAM);
    EXPECT_TRUE(bus_.transfers.empty());
    for (const int32_t bus : {-1, 10, 1'000'000}) {
        device = {7, 7, 7};
        EXPECT_EQ(kiv_i2c_open(&device, bus, 1), KIV_ERR_OPEN);
        EXPECT_TRUE(is_empty(device)) << bus;
    }
    kiv_i2c_deinit();
    EXPECT_EQ(kiv_i2c_open(&device, 1, 1), KIV_ERR_OPEN) << "the table is empty";
}

TEST_F(I2c, NeverTakesDescriptor0AsOpen)
{
    kiv_i2c_handle device = open_device();
    kiv_i2c_close(&device);
    const kiv::unique_fd standard_input(dup(STDIN_FILENO));
    kiv_i2c_close(&device);
    EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1) << "the second close left it open";
    log_capture log;
    close(STDIN_FILENO);
    EXPECT_EQ(kiv_i2c_open(&device, 1, 0x50), KIV_ERR_OPEN);
    EXPECT_TRUE(is_empty(device));
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "nothing is left open";
    EXPECT_TRUE(log.texts("ERRR").at(1).ends_with("of bus 1: standard input is closed"));
    dup2(standard_input.get(), STDIN_FILENO);
}

} // namespace
