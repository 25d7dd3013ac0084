#include "zol/zol.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <string>
#include <vector>

#include "support/fake_host.h"
#include "support/fake_i2c.h"
#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "support/own_events.h"
#include "support/scratch.h"
#include "support/text.h"

using namespace std::chrono_literals;
using zol_test::log_capture;
using strings = std::vector<std::string>;

static_assert(zol::time_limit(1ns).microseconds() == 1, "never shorter than asked for");
static_assert(zol::time_limit(std::chrono::hours::min()).microseconds() == 0 &&
              zol::time_limit(0s).is_limited());
static_assert(zol::time_limit(std::chrono::days(40)).is_limited() && !zol::no_limit.is_limited());
static_assert(!std::is_copy_constructible_v<zol::i2c_device> && !std::is_copy_constructible_v<zol::worker>);
static_assert(!zol::plain<std::string_view> && !zol::plain<std::span<int>> && !zol::plain<const char *>);

TEST(ZolHppError, EachStatusHasATextOfItsOwn)
{
    std::set<std::string> texts;
    for (const int status : {0, -10, -20, -21, -22, -30, -40, -50, -61, -70, -99}) {
        const std::error_code code = static_cast<zol::error>(status);
        EXPECT_TRUE(texts.insert(code.message()).second && (status == -99 || code.message()[0] != 'u'))
            << status;
    }
    EXPECT_EQ(std::error_code(zol::error::timeout), std::errc::timed_out);
    EXPECT_NE(std::error_code(zol::error::open), std::errc::timed_out);
}

class ZolHpp : public testing::Test
{
protected:
    ZolHpp()
    {
        scratch_.write("CAL", "calibration");
        file_ = scratch_.write("conf.xml",
                               zol_test::configuration("<configName>a</configName><debugLevel>1</debugLevel>"
                                                       "<i2c_buses_num>1</i2c_buses_num><i2c_bus_1_dev>" +
                                                       scratch_.write("bus-1", "") +
                                                       "</i2c_bus_1_dev><systemTokensPath>" +
                                                       scratch_.path().string() + "</systemTokensPath>"));
        library_ = std::move(*zol::library::start(file_.c_str()));
    }

    log_capture log_;
    zol_test::scratch_directory scratch_;
    zol_test::fake_i2c bus_;
    std::string file_;
    zol::library library_;
};

TEST_F(ZolHpp, OwnersAreMovedAndReleaseOnce)
{
    const long before = zol_test::entries_of("/proc/self/fd");
    {
        zol::i2c_device device = std::move(*zol::i2c_device::open(1, 0x50));
        zol::i2c_device other = std::move(device);
        EXPECT_EQ(device.read_reg8(1).error(), zol::error::invalid_param);
        zol::i2c_device &same = other;
        other = std::move(same);
        EXPECT_TRUE(other.read_reg8(1));
        other = std::move(*zol::i2c_device::open(1, 0x51));
        EXPECT_EQ(zol_test::entries_of("/proc/self/fd"), before + 1) << "the former device is closed";
    }
    EXPECT_EQ(zol_test::entries_of("/proc/self/fd"), before);
    library_ = zol::library();
    EXPECT_EQ(zol_deinit(), KIV_ERR_STATE) << "it was stopped";
}

TEST_F(ZolHpp, ReadsAndWritesRegistersTokensAndSettings)
{
    auto device = zol::i2c_device::open(1, 0x50);
    ASSERT_TRUE(device);
    bus_.answer = {0xab, 0xcd};
    std::array<std::uint8_t, 2> two = {};
    std::vector<std::uint8_t> many(65536 + 2);
    EXPECT_TRUE(*device->read_reg8(0x0f) == 0xab && *device->read_reg16(0x1234) == 0xab);
    EXPECT_TRUE(device->read_reg16(0x1234, two) && two[1] == 0xcd);
    EXPECT_TRUE(device->write_reg8(0x20, 7) && device->write_reg16(0x0102, two));
    EXPECT_EQ(device->read_reg8(1, many).error(), zol::error::invalid_param);
    EXPECT_EQ(bus_.transfers, (strings{"50 W[0f] R1", "50 W[12 34] R1", "50 W[12 34] R2", "50 W[20 07]",
                                       "50 W[01 02 ab]", "50 W[01 02 cd]"}));
    bus_.fails_from = 0;
    const auto failed = device->write_reg8(0x20, 7);
    EXPECT_EQ(failed.error(), zol::error::write);
    EXPECT_EQ(failed.cause(), std::errc::no_such_device_or_address) << failed.cause().message();
    EXPECT_FALSE(zol::pin().level().cause()) << "that of an earlier call is not taken";

    std::array<std::byte, 64> room;
    EXPECT_TRUE(std::ranges::equal(*zol::read_token("CAL", room), zol::bytes_of(std::string("calibration"))));
    EXPECT_EQ(zol::token_size("NONE").cause(), std::errc::no_such_file_or_directory);
    std::array<char, 3> text;
    EXPECT_EQ(zol::setting("general", "i2c_buses_num"), 1);
    EXPECT_EQ(zol::setting("general", "none"), std::nullopt);
    EXPECT_EQ(zol::setting("general", "systemTokensPath", text), "/t");
}

TEST_F(ZolHpp, PinsAreFreedWithTheirCallbacks)
{
    kiv_gpio_set_simulator_mode(1);
    auto callback = [](int) {};
    {
        auto pin = zol::pin::request(3, "three");
        ASSERT_TRUE(pin && pin->set_level(1) && *pin->level() == 1);
        EXPECT_TRUE(pin->watch(zol::trigger::rising, callback) && pin->unwatch() &&
                    pin->watch(zol::trigger::high, callback));
    }
    EXPECT_TRUE(log_.texts("ERRR").empty());
    EXPECT_EQ(kiv_gpio_direction_in(3), KIV_ERR_INVALID_PARAM) << "it was freed";
    kiv_gpio_set_simulator_mode(0);
}

TEST_F(ZolHpp, WorkersHandleTheirQueueBeforeTheyGo)
{
    std::vector<std::int32_t> seen;
    std::atomic<int> idle = 0;
    auto handle = [&](const zol::received &message) {
        if (message.is_timeout()) {
            ++idle;
        } else {
            seen.push_back(zol::from_bytes<std::int32_t>(message.payload()).value_or(-message.id()));
        }
    };
    auto worker = zol::worker::start("worker", handle, 1ms);
    ASSERT_TRUE(worker && worker->is_running());
    EXPECT_TRUE(zol_test::eventually([&] { return idle >= 2; }));
    for (std::int32_t i = 1; i <= 3; ++i) {
        auto message = zol::message::make(100, zol::bytes_of(i));
        EXPECT_TRUE(i < 3 ? worker->send(std::move(*message)) : worker->send_and_wait(std::move(*message)));
        EXPECT_FALSE(*message) << "sent";
    }
    EXPECT_EQ(seen.back(), 3);
    EXPECT_TRUE(worker->send(std::move(*zol::message::make(101))));
    *worker = zol::worker();
    EXPECT_EQ(seen, (std::vector<std::int32_t>{1, 2, 3, -101, -KIV_MSG_ID_EXIT}));
    zol::message kept = std::move(*zol::message::make(102));
    EXPECT_EQ(worker->send(std::move(kept)).error(), zol::error::invalid_param);
    EXPECT_TRUE(kept) << "a message that could not be sent stays";
    EXPECT_EQ(zol::worker::start("x", handle).error(), zol::error::invalid_param);
}

TEST_F(ZolHpp, EventsAreWaitedForAndGoBeforeTheirGroup)
{
    auto group = zol::event_group::create("group");
    auto door = zol::event::create(*group, "door");
    ASSERT_TRUE(door && door->enable());
    int number = 0;
    std::array entries = {zol::wait_entry("door", zol::bytes_of(number)), zol::wait_entry("door")};
    EXPECT_TRUE(door->notify(zol::bytes_of(std::as_const(number = 5))) && door->notify());
    EXPECT_TRUE(zol::wait_for(entries) && entries[0].has_fired() && entries[1].has_fired());
    EXPECT_EQ(zol::from_bytes<int>(entries[0].payload()), 5);
    EXPECT_EQ(zol::wait_for(entries[0], 1ms).error(), std::errc::timed_out);
    EXPECT_FALSE(entries[0].has_fired()) << "cleared by the wait";
    EXPECT_GE(*zol::event_descriptor("door"), 0);
    *door = zol::event();
    *group = zol::event_group();
    EXPECT_TRUE(log_.texts("ERRR").empty());
    EXPECT_EQ(zol::event_descriptor("door").error(), zol::error::invalid_param) << "it was deleted";
}

TEST_F(ZolHpp, TimingLogsWriteEveryEvent)
{
    const zol_test::fake_host host(scratch_.path());
    zol::lane_map lanes({{1, "read"}, {2, "wait"}});
    {
        auto log = zol::timing_log::open("lanes", lanes);
        const auto reading = log->during(1);
        log->pulse(2);
    }
    zol::timing_log().pulse(1);
    const std::string rows = zol_test::contents_of(scratch_.path() / "lanes.csv");
    EXPECT_EQ(std::ranges::count(rows, '\n'), 3 + 2 + 3 + 2);
}
