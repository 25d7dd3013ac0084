// zol_timing as a process: what it draws and dumps, and what it says of logs that are none.

#include <gtest/gtest.h>

#include <string>

#include "support/scratch.h"
#include "support/text.h"
#include "system/command.h"

using zol_test::command_result;

namespace
{

class Timing : public testing::Test
{
protected:
    command_result convert(const std::string &csv)
    {
        return zol_test::run_command({ZOL_TIMING, scratch_.write("log.csv", csv)});
    }

    std::string output(const std::string &name) { return zol_test::contents_of(scratch_.path() / name); }

    zol_test::scratch_directory scratch_;
};

TEST_F(Timing, WaveformsKeepTheMicrosecond)
{
    const command_result result = convert("time,rx,t <x,delta since last event,\n"
                                          "0.000000,0,2,,\n"
                                          "1.500000,,2,,\n1.500000,,3,1.500000,\n"
                                          "1.999999,0,,,\n1.999999,1,,1.999999,\n1.999999,0,,,\n"
                                          "-1.900000,0,,,\n"
                                          "3.000000,0,3,,\n");
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(output("log.vcd"), "$timescale 1 us $end\n$scope module timing $end\n$var wire 1 ! rx $end\n"
                                 "$var wire 1 \" t_<x $end\n$upscope $end\n$enddefinitions $end\n"
                                 "#0\n$dumpvars\n0!\n0\"\n$end\n"
                                 "#1600000\n1\"\n#2099999\n1!\n#2100000\n0!\n#3100001\n");
    const std::string svg = output("log.svg");
    for (const char *part : {">t &lt;x</text>", "<circle", "time in s"}) {
        EXPECT_NE(svg.find(part), std::string::npos) << part;
    }
}

TEST_F(Timing, WhatIsNoLogIsNamed)
{
    const std::string header = "time,rx,delta since last event,\n";
    const struct {
        std::string csv, error;
    } cases[] = {
        {"", ": cannot be read, or is empty"},
        {"a,b\n", ":1: this is no timing log: its header must be \"time,...,delta since last event,\""},
        {header + "0.000000,0,,\n1.0,1,,\n", ":3: \"1.0\" is no time"},
        {header + "0.000000,0,,,\n", ":2: a row of 4 cells, but the header has 3"},
        {header + "0.000000,7,,\n", ":2: \"7\" is no level of lane rx"}};
    for (const auto &[csv, error] : cases) {
        const command_result result = convert(csv);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "zol_timing: " + (scratch_.path() / "log.csv").string() + error + "\n");
    }
    for (const auto &words : {std::vector<std::string>{}, {"--svg"}, {"a.csv", "b.csv"}, {"--what"}}) {
        std::vector<std::string> command = {ZOL_TIMING};
        command.insert(command.end(), words.begin(), words.end());
        EXPECT_EQ(zol_test::run_command(command).status, 2);
    }
    EXPECT_EQ(zol_test::run_command({ZOL_TIMING, "--help"}).status, 0);
}

} // namespace
