// Play files: the times of the steps, and the requests that the board gets.

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>

#include "play_file.h"

namespace
{

std::string describe(const kivboard::play_step &step)
{
    std::ostringstream text;
    text << step.line << " " << (step.is_timed ? step.is_absolute ? "@" : "+" : "")
         << step.time.count() / 1000 << " " << step.times << "x" << step.period.count() / 1000 << " "
         << step.request << (step.is_wait ? " is a wait" : "");
    for (const std::uint32_t number : step.expected) {
        text << " =" << number;
    }
    return text.str();
}

TEST(BoardPlay, StepsHaveTimesAndRequests)
{
    std::istringstream file("wait pin 5 is 1 # a wait has a limit\n"
                            "wait pin 5 is 0 within 2s\n"
                            "@1s raise 17\n"
                            "+0.5s repeat 3 every 100us expect reg 4 0x18 1 = 2 0x33\n"
                            "{\"time\":1.5,\"event\":\"not from the bench\"}\n"
                            "{\"time\":7.5,\"stimulus\":\"raise 6\",\"event\":\"x\"}\n"
                            "{\"time\":7.75,\"stimulus\":\"expect pin 5 is 1\",\"event\":\"x\"}\n");
    const std::string expected[] = {"1 0 1x0 wait pin 5 is 1 within 10s is a wait",
                                    "2 0 1x0 wait pin 5 is 0 within 2s is a wait",
                                    "3 @1000000 1x0 raise 17",
                                    "4 +500000 3x100 peek 4 0x18 1 2 =2 =51",
                                    "6 +0 1x0 raise 6",
                                    "7 +250000 1x0 level 5 =1"};
    const kivboard::play_file play = kivboard::read_play_file(file, "name");
    EXPECT_TRUE(play.problems.empty());
    ASSERT_EQ(play.steps.size(), std::size(expected));
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(describe(play.steps[i]), expected[i]);
    }
}

} // namespace
