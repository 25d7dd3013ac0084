#include "zol/kiv_i2c.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/fake_i2c.h"
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

    // Starts the module.
    int32_t start(const std::string &general)
    {
        kiv_config_deinit();
        file_ = scratch_.write("conf.xml", zol_test::configuration(general));
        return kiv_config_init(file_.c_str()) == 1 ? kiv_i2c_init() : -1;
    }

    // Starts it with a file of the scratch directory for the node of bus 1.
    int32_t start_with_node(const std::string &name, bool logged = false)
    {
        return start("<i2c_buses_num>1</i2c_buses_num><i2c_bus_1_debug>" + std::to_string(logged) +
                     "</i2c_bus_1_debug><i2c_bus_1_dev>" + (scratch_.path() / name).string() +
                     "</i2c_bus_1_dev>");
    }

    kiv_i2c_handle open_device(bool logged = false)
    {
        scratch_.write("bus-1", "");
        kiv_i2c_handle device = {};
        EXPECT_EQ(start_with_node("bus-%d", logged), KIV_OK);
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

TEST_F(I2c, TheTableHasOneBusMoreThanConfigured)
{
    const struct {
        const char *configured, *logged;
        int buses;
    } cases[] = {{"0", "0", 0},    {"2", "3", 3},    {"9", "10", 10},
                 {"50", "51", 10}, {"-1", "-1", 10}, {"2147483647", "-2147483648", 10}};
    g_debugLevel = 2;
    for (const auto &[configured, logged, buses] : cases) {
        log_capture log;
        ASSERT_EQ(start("<i2c_buses_num>" + std::string(configured) + "</i2c_buses_num>"), KIV_OK);
        EXPECT_TRUE(log.has("PRNT", "system with " + std::string(logged) + " i2c buses")) << log.out();
        for (int bus = 0; bus < KIV_I2C_MAX_BUSES; ++bus) {
            kiv_i2c_handle device = {};
            EXPECT_EQ(kiv_i2c_open(&device, bus, 1), KIV_ERR_OPEN) << "there is no node /dev/i2c-";
        }
        EXPECT_EQ(log.texts("ERRR").size(), static_cast<std::size_t>(2 * KIV_I2C_MAX_BUSES - buses))
            << configured;
    }
    log_capture log;
    EXPECT_EQ(start("<other/>"), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(start("<i2c_buses_num>many</i2c_buses_num>"), KIV_ERR_INVALID_PARAM);
    EXPECT_EQ(log.texts("ERRR").size(), 2U);
}

TEST_F(I2c, ReadsAreOneTransferAndWritesOnePerByteToTheSameRegister)
{
    kiv_i2c_handle device = open_device();
    bus_.answer = {0xde, 0xad, 0xbe};
    uint8_t out[4] = {0, 0, 0, 0x77};
    EXPECT_EQ(kiv_i2c_read_reg8(&device, 0x0f, 3, out), KIV_OK);
    EXPECT_EQ(kiv_i2c_read_reg16(&device, 0x1234, 1, out + 2), KIV_OK);
    EXPECT_EQ(kiv_i2c_read_reg8(&device, 1, 0, out), KIV_OK);
    EXPECT_EQ((std::vector<int>(out, out + 4)), (std::vector<int>{0xde, 0xad, 0xde, 0x77}));
    EXPECT_EQ(kiv_i2c_write_reg8(&device, 0x10, 2, out), KIV_OK);
    EXPECT_EQ(kiv_i2c_write_reg16(&device, 0x1234, 1, out), KIV_OK);
    EXPECT_EQ(bus_.transfers, (strings{"50 W[0f] R3", "50 W[12 34] R1", "50 W[01] R0", "50 W[10 de]",
                                       "50 W[10 ad]", "50 W[12 34 de]"}));

    bus_.transfers.clear();
    log_capture log;
    EXPECT_EQ(kiv_i2c_write_reg8(&device, 0x10, 0, out), KIV_ERR_WRITE);
    EXPECT_EQ(log.out(), "") << "nothing to write is refused without a word";
    bus_.fails_from = 1;
    EXPECT_EQ(kiv_i2c_write_reg8(&device, 0x10, 3, out), KIV_ERR_WRITE);
    EXPECT_EQ(bus_.transfers, strings{"50 W[10 de]"}) << "what follows the failure is not sent";
    EXPECT_EQ(log.texts("ERRR"), strings{"write register 0x10 ret -1"});
    kiv_i2c_close(&device);
}

TEST_F(I2c, ALoggedBusLogsEveryStep)
{
    g_debugLevel = 2;
    log_capture log;
    kiv_i2c_handle device = open_device(true);
    bus_.answer = {0x2a};
    uint8_t value = 0;
    const std::string fd = std::to_string(device.fd);
    EXPECT_EQ(kiv_i2c_read_reg8(&device, 0xf, 1, &value), KIV_OK);
    EXPECT_EQ(kiv_i2c_write_reg16(&device, 0x123, 1, &value), KIV_OK);
    bus_.fails_from = 0;
    EXPECT_EQ(kiv_i2c_read_reg8(&device, 0xf, 12, &value), KIV_ERR_NOT_FOUND);
    kiv_i2c_close(&device);
    const strings expected = {"system with 2 i2c buses",
                              "open  bus 1 - " + (scratch_.path() / "bus-1").string() + " file " + fd +
                                  " deviceAddress 0x50",
                              "read : addr 0x0050 reg 0x0f bytes  1 ret 2 out 0x2a",
                              "write deviceAddress 0x0050 deviceReg 0x123 value 0x2a ret 1",
                              "read : addr 0x0050 reg 0x0f bytes 12 ret -1 out 0x2a",
                              "close bus 1 - file " + fd};
    EXPECT_EQ(log.texts("PRNT"), expected);
    EXPECT_EQ(log.texts("ERRR"), strings{"can't read register 0xf ret -1"});
}

TEST_F(I2c, HandlesThatAreNotOpenAreRefused)
{
    kiv_i2c_handle device = open_device(true);
    uint8_t value = 0;
    EXPECT_EQ(kiv_i2c_close(&device), KIV_OK);
    EXPECT_TRUE(device.fd == 0 && device.bus == -1 && device.deviceAddress == 0x50);
    g_debugLevel = KIV_DEBUG_LEVEL_ALL;
    log_capture log;
    EXPECT_EQ(kiv_i2c_close(&device), KIV_OK);
    EXPECT_EQ(log.out(), "") << "the second close does nothing";
    EXPECT_EQ(kiv_i2c_close(nullptr), KIV_OK);
    EXPECT_EQ(kiv_i2c_open(nullptr, 1, 1), KIV_ERR_OPEN);
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

TEST_F(I2c, NodeNamesAreNeverUsedAsAFormat)
{
    for (const char *file : {"n1", "n1x", "plain"}) {
        scratch_.write(file, "");
    }
    for (const char *name : {"n%d", "n%i", "n%u", "n%x", "n%X", "n%o", "n%dx", "plain"}) {
        kiv_i2c_handle device = {};
        ASSERT_EQ(start_with_node(name), KIV_OK);
        EXPECT_EQ(kiv_i2c_open(&device, 1, 1), KIV_OK) << name;
        kiv_i2c_close(&device);
    }
    const std::string cut = std::string(61 - scratch_.path().string().size(), 'f') + "%d"; // to 63 characters
    const strings names = {"n%s", "n%n", "n%*d", "n%d%d", "n%9999d", "n%1$d", "n%", "n%ld", cut};
    for (const std::string &name : names) {
        kiv_i2c_handle device = {7, 7, 7};
        log_capture log;
        ASSERT_EQ(start_with_node(name), KIV_OK);
        EXPECT_EQ(kiv_i2c_open(&device, 1, 1), KIV_ERR_OPEN) << name;
        EXPECT_TRUE(is_empty(device));
        EXPECT_TRUE(log.texts("ERRR").at(0).ends_with("may hold one plain integer conversion and no other"));
    }
}

} // namespace
