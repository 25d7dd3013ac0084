#include "board_file.h"

#include <gtest/gtest.h>

#include <string>

#include "support/scratch.h"

namespace
{

class BoardFile : public testing::Test
{
protected:
    std::optional<kivboard::board_description> read(const std::string &xml)
    {
        path_ = scratch_.write("board.xml", xml);
        return kivboard::read_board_file(path_, error_);
    }

    zol_test::scratch_directory scratch_;
    std::string path_;
    std::string error_;
};

TEST_F(BoardFile, DescribesBusesDevicesAndPins)
{
    const auto board =
        read("<board><bus number='2'><device name='e' address='0x50' registers='16' size='0x800'"
             " refuses='writes' fails_after='3'><at register='16' bytes='DE ad\n0'/></device>"
             "<device address='24'/></bus><bus number='0'/>"
             "<pins first='2' last='4' level='1'><fails node='irq' operation='poll'/>"
             "<fails node='level' operation='open'/></pins><pin number='99999'/></board>");
    ASSERT_TRUE(board) << error_;
    ASSERT_EQ(board->buses.size(), 2U);
    EXPECT_EQ(board->buses[0].number, 2U);
    ASSERT_EQ(board->buses[0].devices.size(), 2U);
    const kivboard::device_description &device = board->buses[0].devices[0];
    EXPECT_EQ(device.name, "e");
    EXPECT_EQ(device.address, 0x50);
    EXPECT_EQ(device.register_bits, 16U);
    EXPECT_EQ(device.size, 0x800U);
    EXPECT_EQ(device.refuses, kivboard::refusal::writes);
    EXPECT_EQ(device.fails_after, 3U);
    EXPECT_EQ(device.contents[0].at, 16U);
    EXPECT_EQ(device.contents[0].bytes, (std::vector<std::uint8_t>{0xde, 0xad, 0}));
    EXPECT_EQ(board->buses[0].devices[1].size, 256U);

    ASSERT_EQ(board->pins.size(), 4U);
    EXPECT_EQ(board->pins[0].number, 99'999U) << "single pins come first";
    EXPECT_FALSE(board->pins[0].level);
    const kivboard::pin_description &last = board->pins[3];
    EXPECT_EQ(last.number, 4U);
    EXPECT_TRUE(last.level);
    ASSERT_EQ(last.failures.size(), 2U);
    EXPECT_EQ(last.failures[0].attribute, kivboard::gpio_attribute::irq);
    EXPECT_EQ(last.failures[0].operation, kivboard::gpio_operation::poll);
}

TEST_F(BoardFile, MistakesAreNamedWithTheirLine)
{
    const auto expect_error = [this](const std::string &xml, const std::string &error) {
        EXPECT_FALSE(read(xml)) << xml;
        EXPECT_EQ(error_, path_ + error);
    };
    expect_error("<board>\n<bus></board>", ":2: Opening and ending tag mismatch: bus line 2 and board");
    expect_error("", ":1: Document is empty");
    expect_error("<boards/>", ":1: the root element is <boards>, but must be <board>");

    const std::pair<std::string, std::string> of_boards[] = {
        {"\n<device/>", ":2: <board> holds no <device>"},
        {"<bus/>", ":1: <bus> needs the attribute \"number\""},
        {"<bus number='10'/>", ":1: number is \"10\", but must be a number from 0 to 9"},
        {"<bus number='1x'/>", ":1: number is \"1x\", but must be a number from 0 to 9"},
        {"<bus number='1'/>\n<bus number='1'/>", ":2: there is another bus of this number"},
        {"<bus number='1' speed='9'/>", ":1: <bus> has no attribute \"speed\""},
        {"<pin number='100000'/>", ":1: number is \"100000\", but must be a number from 0 to 99999"},
        {"<pins first='5' last='4'/>", ":1: last is \"4\", but must be a number from 5 to 99999"},
        {"<pins first='0' last='9'/>\n<pins first='9' last='12'/>", ":2: there is another pin 9"},
        {"<pin number='1' level='2'/>", ":1: level is \"2\", but must be a number from 0 to 1"},
        {"<pin number='1'><fails operation='read'/></pin>",
         ":1: node is \"\", but must be level, irq, irqmask, irqrequest or irqconfig"},
        {"<pin number='1'><fails node='irq' operation='seek'/></pin>",
         ":1: operation is \"seek\", but must be open, read, write or poll"}};
    for (const auto &[xml, error] : of_boards) {
        expect_error("<board>" + xml + "</board>", error);
    }
    const std::pair<std::string, std::string> of_devices[] = {
        {"address='0x80'/>", ":1: address is \"0x80\", but must be a number from 3 to 119"},
        {"address='9'/>\n<device address='0x9'/>", ":2: there is another device at this address on bus 1"},
        {"address='9' registers='9'/>",
         ":1: registers must be 8 or 16, the width of a register address in bits"},
        {"address='9' size='257'/>", ":1: size is \"257\", but must be a number from 1 to 256"},
        {"address='9' refuses='work'/>", ":1: refuses is \"work\", but must be all, reads or writes"},
        {"address='9'><at register='1'/></device>",
         ":1: <at> needs the attribute \"bytes\" with at least one byte"},
        {"address='9'><at register='1' bytes='100'/></device>",
         ":1: \"100\" is no byte; bytes are written like \"0f a5\""},
        {"address='9'><at register='255' bytes='1 2'/></device>",
         ":1: the bytes reach beyond the last register of d"}};
    for (const auto &[xml, error] : of_devices) {
        expect_error("<board><bus number='1'><device name='d' " + xml + "</bus></board>", error);
    }
    EXPECT_FALSE(kivboard::read_board_file("/nowhere.xml", error_));
    EXPECT_EQ(error_, "/nowhere.xml:0: failed to load external entity \"/nowhere.xml\"");
}

TEST_F(BoardFile, TheShippedBoardIsGood)
{
    EXPECT_TRUE(kivboard::read_board_file("Conf/kiv_board.xml", error_)) << error_;
}

} // namespace
