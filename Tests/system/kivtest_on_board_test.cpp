// kivtest.exe on the virtual board: the registers that it reads and writes are those of the board's devices.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/scratch.h"
#include "system/command.h"

using zol_test::command_result;

namespace
{

constexpr char board_xml[] = R"(<board>
  <bus number="1">
    <device name="eeprom" address="0x50" registers="16" size="4096"><at register="0x0123" bytes="de ad"/></device>
  </bus>
  <bus number="4">
    <device name="sensor" address="0x18" registers="8"><at register="0x0f" bytes="33"/></device>
    <device name="mute" address="0x19" registers="8" refuses="all"/>
  </bus>
</board>)";

class OnBoard : public testing::Test
{
protected:
    void SetUp() override
    {
        if (std::getenv("ZOL_EMULATOR") != nullptr) {
            GTEST_SKIP()
                << "the board starts programs itself, which an emulator of one program does not take on";
        }
        const command_result check = zol_test::run_command({KIVBOARD, "check"});
        if (check.status != 0) {
            GTEST_SKIP() << check.err;
        }
        board_file_ = scratch_.write("board.xml", board_xml);
    }

    // Runs a line of shell on a board of its own; $kivtest and $kivboard are the programs.
    command_result on_board(const std::string &line)
    {
        return zol_test::run_command({KIVBOARD, "run", "--board", board_file_, "--socket",
                                      scratch_.path() / "socket", "--", "/bin/sh", "-c",
                                      "kivtest='" KIVTEST_EXE "'; kivboard='" KIVBOARD "'; " + line});
    }

    static bool says(const command_result &result, const std::string &text)
    {
        return result.out.find(text) != std::string::npos;
    }

    zol_test::scratch_directory scratch_;
    std::string board_file_;
};

TEST_F(OnBoard, ReadsWhatIsThere)
{
    EXPECT_TRUE(says(on_board("$kivtest -t read_i2c"), "Read i2c (bus 0x4 device 0x18 reg 0xf) ==> 0x33\n"));
    EXPECT_TRUE(says(on_board("$kivtest -t read_i2c16 -b 1 -d 0x50 -r 0x124"),
                     "Read i2c (bus 0x1 device 0x50 reg 0x124) ==> 0xad\n"));
    const command_result poked = on_board(
        "$kivboard poke 4 0x18 0x0f 0x77 && $kivboard poke 1 0x50 0xfff 0x99 && $kivtest -t read_i2c && "
        "$kivtest -t read_i2c16 -b 1 -d 0x50 -r 0xfff");
    EXPECT_TRUE(says(poked, "==> 0x77\n")) << poked.out << poked.err;
    EXPECT_TRUE(says(poked, "==> 0x99\n")) << poked.out << poked.err;
}

TEST_F(OnBoard, WritesArriveAndAreJournalled)
{
    const command_result result = on_board(
        "$kivtest -t write_i2c -r 0x20 -v 0x5a && $kivtest -t write_i2c16 -b 1 -d 0x50 -r 0x234 -v 0xa5 && "
        "$kivboard peek 4 0x18 0x20 && $kivboard peek 1 0x50 0x234 && $kivboard journal");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(says(result, "Write i2c (bus 0x4 device 0x18 reg 0x20) <== val 0x5a\n"));
    EXPECT_TRUE(says(result, "0x5a\n0xa5\n")) << result.out;
    EXPECT_TRUE(says(result, "i2c-4 0x18 W[20 5a] ok")) << result.out;
    EXPECT_TRUE(says(result, "i2c-1 0x50 W[02 34 a5] ok")) << result.out;
}

TEST_F(OnBoard, ExampleReadsARegister)
{
    const command_result result = on_board(READ_REGISTER_EXAMPLE " Conf/kiv_test.xml");
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(says(result, "its calibration has 80 bytes\n")) << result.out;
    EXPECT_TRUE(says(result, "the sensor says that it is a 0x33\n")) << result.out;
}

TEST_F(OnBoard, ExampleLogsTwoWorkers)
{
    const command_result result =
        on_board(TWO_WORKERS_EXAMPLE " Conf/kiv_test.xml && wc -l < /var/log/zol/two_workers.csv");
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(says(result, "all messages were handled\n")) << result.out;
    // Six times a pulse of three rows and six edges of two; the header, the start and the stop.
    EXPECT_TRUE(result.out.ends_with("\n93\n")) << result.out;
}

TEST_F(OnBoard, StorageStressWritesToTheBoard)
{
    const command_result result =
        on_board("$kivtest -m biostress -t 2 -f 2 -s 65536 -d 1000; wc -c /media/internal/*");
    for (const std::string file : {"stress_0_file_0.bin", "stress_1_file_2.bin"}) {
        EXPECT_TRUE(says(result, " 65536 /media/internal/" + file) ||
                    says(result, "\n65536 /media/internal/" + file))
            << result.out;
    }
    EXPECT_FALSE(says(result, "[ERRR]")) << result.out;
}

TEST_F(OnBoard, DevicesThatDoNotAnswerAreReported)
{
    for (const std::string address : {"0x19", "0x55"}) {
        const command_result result = on_board("$kivtest -t read_i2c -d " + address);
        EXPECT_TRUE(says(result, "can't read register 0xf ret -1\n")) << result.out << result.err;
        EXPECT_TRUE(says(result, "==> 0x0\n"));
        const command_result written = on_board("$kivtest -t write_i2c -d " + address);
        EXPECT_TRUE(says(written, "write register 0xf ret -1\n")) << written.out;
    }
    const command_result no_bus = on_board("$kivtest -t read_i2c -b 3");
    EXPECT_TRUE(says(no_bus, "ASSERT FAILED [Src/kiv_i2c]"));
    EXPECT_FALSE(says(no_bus, "==>"));
}

} // namespace
