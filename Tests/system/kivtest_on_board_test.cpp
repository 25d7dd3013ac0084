// kivtest.exe on the virtual board: the registers that it reads and writes are those of the board's devices.

#include <gtest/gtest.h>

#include <string>

#include "system/on_board.h"

using zol_test::command_result;

namespace
{

constexpr char board_xml[] = R"(<board>
  <bus number="1">
    <device name="eeprom" address="0x50" registers="16" size="4096"/>
  </bus>
  <bus number="4">
    <device name="sensor" address="0x18" registers="8"><at register="0x0f" bytes="33"/></device>
    <device name="mute" address="0x19" registers="8" refuses="all"/>
  </bus>
</board>)";

class OnBoard : public zol_test::OnBoardTest
{
protected:
    OnBoard() : OnBoardTest(board_xml) {}
};

TEST_F(OnBoard, RegistersAreReadAndWritten)
{
    const command_result result = on_board(
        "$kivtest -t read_i2c; $kivboard poke 1 0x50 0xfff 0x99; $kivtest -t read_i2c16 -b 1 -d 0x50 -r "
        "0xfff; "
        "$kivtest -t write_i2c -r 0x20 -v 0x5a; $kivtest -t write_i2c16 -b 1 -d 0x50 -r 0x234 -v 0xa5; "
        "$kivboard peek 4 0x18 0x20; $kivboard peek 1 0x50 0x234; $kivboard journal");
    EXPECT_EQ(result.status, 0) << result.err;
    for (const char *line : {"Read i2c (bus 0x4 device 0x18 reg 0xf) ==> 0x33\n",
                             "Read i2c (bus 0x1 device 0x50 reg 0xfff) ==> 0x99\n",
                             "Write i2c (bus 0x4 device 0x18 reg 0x20) <== val 0x5a\n", "0x5a\n0xa5\n",
                             "i2c-4 0x18 W[20 5a] ok", "i2c-1 0x50 W[02 34 a5] ok"}) {
        EXPECT_TRUE(says(result, line)) << line << result.out;
    }
}

TEST_F(OnBoard, DevicesThatDoNotAnswerAreReported)
{
    for (const std::string address : {"0x19", "0x55"}) {
        const command_result result =
            on_board("$kivtest -t read_i2c -d " + address + "; $kivtest -t write_i2c -d " + address);
        for (const char *line :
             {"can't read register 0xf ret -1\n", "==> 0x0\n", "write register 0xf ret -1\n"}) {
            EXPECT_TRUE(says(result, line)) << line << result.out << result.err;
        }
    }
    const command_result no_bus = on_board("$kivtest -t read_i2c -b 3");
    EXPECT_TRUE(says(no_bus, "ASSERT FAILED [Src/kiv_i2c]"));
    EXPECT_FALSE(says(no_bus, "==>"));
}

} // namespace
