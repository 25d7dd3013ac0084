// The examples, run as their comments say: on the virtual board, or where they need none, without.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>
#include <string>
#include <vector>

#include "support/scratch.h"
#include "system/command.h"

using zol_test::command_result;

namespace
{

enum class runs { on_board, anywhere };

struct example {
    std::string name;
    runs where;
    std::string command;
    std::vector<std::string> lines; // among those that it writes, in this order
};

std::ostream &operator<<(std::ostream &out, const example &tested)
{
    return out << tested.name;
}

// Where the commands of the examples are found, and one that waits until a pin's callback is registered.
constexpr char prelude[] =
    "PATH='" EXAMPLES "':$PATH; registered() { for try in $(seq 300); do "
    "kivboard journal | grep -q \"gpio_$1 irqmask W.0. ok\" && return 0; sleep 0.1; done; return 1; }; ";

const example examples[] = {
    {"read_register",
     runs::on_board,
     "read_register",
     {"the sensor says that it is a 0x33", "its calibration has 80 bytes"}},
    {"read_sensor", runs::on_board, "read_sensor", {"the sensor says that it is a 0x33"}},
    {"sensor_logger",
     runs::on_board,
     "sensor_logger & registered 17 && sleep 0.5; kivboard raise 17 && wait $! && "
     "sed -n 1p /var/log/zol/sensor.csv",
     {"reading 1: 0x33", "reading 2: 0x33", "the button was pressed",
      "time,read,failure,delta since last event,"}},
    {"eeprom",
     runs::on_board,
     "eeprom && kivboard peek 1 0x50 0x0200",
     {"0x50: \"serial 0042\" is written and verified", "0x51: not written, status -22", "0x73"}},
    {"blink_test",
     runs::on_board,
     "blink_test -m blink -p 6 -n 3 && kivboard level 6",
     {"pin 6 was switched 3 times, 0 wrong", "1"}},
    // Six times a pulse of three rows and six edges of two; the header, the start and the stop.
    {"two_workers",
     runs::on_board,
     "two_workers && wc -l < /var/log/zol/two_workers.csv",
     {"all messages were handled", "93"}},
    {"button_lamp",
     runs::on_board,
     "button_lamp & registered 17 && kivboard raise 17 && kivboard raise 17 && kivboard raise 17; wait $! && "
     "kivboard level 5",
     {"press 1: the sensor says 0x33, the lamp is on", "press 2: the sensor says 0x33, the lamp is off",
      "press 3: the sensor says 0x33, the lamp is on", "1"}},
    {"blink_test_simulated",
     runs::anywhere,
     "blink_test -s 1 -m blink -n 4",
     {"pin 5 was switched 4 times, 0 wrong"}},
    {"settings",
     runs::anywhere,
     "settings",
     {"board kiv_test, bus 4 at /dev/i2c-%d, 115200 baud by default", "calibration 1.2: 12 -7 1003",
      "BINTOKEN: 22 bytes, beginning with 00 01 02 03", "GYROCAL: no such token"}},
    {"events_poll",
     runs::anywhere,
     "events_poll",
     {"door: open", "temperature: 21", "temperature: 22", "temperature: 23"}},
    {"events_glib", runs::anywhere, "events_glib", {"3", "2", "1", "0"}},
};

class Examples : public testing::TestWithParam<example>
{
};

TEST_P(Examples, Run)
{
    if (std::getenv("ZOL_EMULATOR") != nullptr) {
        GTEST_SKIP() << "an emulator of one program does not take on those that a shell starts";
    }
    const auto &[name, where, command, lines] = GetParam();
    const zol_test::scratch_directory scratch;
    std::vector<std::string> words = {"/bin/sh", "-c", prelude + command};
    if (where == runs::on_board) {
        if (const command_result check = zol_test::run_command({KIVBOARD, "check"}); check.status != 0) {
            GTEST_SKIP() << check.err;
        }
        const std::vector<std::string> board = {KIVBOARD, "run", "--socket", scratch.path() / "socket", "--"};
        words.insert(words.begin(), board.begin(), board.end());
    }
    const command_result result = zol_test::run_command(words);
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    const std::string out = "\n" + result.out;
    std::size_t at = 0;
    for (const std::string &line : lines) {
        at = out.find("\n" + line + "\n", at);
        ASSERT_NE(at, std::string::npos) << "no line '" << line << "' at its place in" << out << result.err;
    }
}

INSTANTIATE_TEST_SUITE_P(, Examples, testing::ValuesIn(examples),
                         [](const auto &instance) { return instance.param.name; });

} // namespace
