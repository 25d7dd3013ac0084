// zol: the services of the library on the command line, one at a time.

#include <exception>

#include "command.h"
#include "command_line.h"
#include "interruption.h"
#include "standard_streams.h"

namespace zol_tool
{

namespace
{

constexpr option pulse_options[] = {
    {"--ms", nullptr, "TIME", "length of a pulse, and of the pause between two (10)"},
    {"--count", "-n", "COUNT", "number of pulses (1)"},
    {"--low", nullptr, nullptr, "low pulses: the pin is high otherwise"},
};
constexpr option wait_options[] = {
    {"--edge", "-e", "EDGE", "rising, falling or both (both)"},
    {"--timeout", "-t", "TIME", "such as 2s or 500ms; without it there is no limit"},
    {"--format", "-f", "TEXT", "the line of an interrupt: %p pin, %l level, %t time, %s seconds, %n count"},
};
constexpr option watch_options[] = {
    {"--edge", "-e", "EDGE", "rising, falling or both (both)"},
    {"--count", "-n", "COUNT", "ends after so many interrupts"},
    {"--format", "-f", "TEXT", "the line of an interrupt: %p pin, %l level, %t time, %s seconds, %n count"},
};

constexpr option bus_option = {"--bus", "-b", "BUS", "number of the bus", true};
constexpr option device_option = {"--device", "-d", "DEVICE", "address of the device, as 0x18", true};
constexpr option register_option = {"--register", "-r", "REG", "register; also 0x20-0x2f and 0x0f,0x20-0x2f",
                                    true};
constexpr option wide_option = {"--16", nullptr, nullptr, "register addresses have 16 bits"};
constexpr option scan_options[] = {
    bus_option,
    {"--device", "-d", "RANGE", "addresses to look at (0x08-0x77)"},
};
constexpr option get_options[] = {
    bus_option,
    device_option,
    register_option,
    wide_option,
    {"--bytes", "-n", "COUNT", "bytes to read from each register on, in one transfer (1)"},
};
constexpr option set_options[] = {
    bus_option,
    device_option,
    {"--register", "-r", "REG", "register of the first value", true},
    wide_option,
    {"--fifo", nullptr, nullptr, "all values go to the same register"},
};
constexpr option dump_options[] = {
    bus_option,
    device_option,
    {"--register", "-r", "REG", "registers, as 0x20-0x2f (0x00-0xff)"},
    wide_option,
    {"--block", nullptr, nullptr, "one transfer for each row, of devices that increment"},
    {"--compare", nullptr, "FILE", "shows the differences to an earlier dump"},
};
constexpr option transfer_options[] = {bus_option, device_option};

constexpr option token_options[] = {
    {"--raw", nullptr, nullptr, "prints the bytes as they are, and nothing else"}};

constexpr command commands[] = {
    {"gpio", "get", "PIN...", "reads levels", gpio_get, {}},
    {"gpio", "set", "PIN=LEVEL...", "drives pins", gpio_set, {}},
    {"gpio", "pulse", "PIN...", "drives pulses", gpio_pulse, pulse_options},
    {"gpio", "wait", "PIN...", "waits for one interrupt", gpio_wait, wait_options},
    {"gpio", "watch", "PIN...", "prints each interrupt until Ctrl-C", gpio_watch, watch_options},
    {"i2c", "scan", "", "finds the devices of a bus", i2c_scan, scan_options},
    {"i2c", "get", "", "reads registers", i2c_get, get_options},
    {"i2c", "set", "VALUE...", "writes registers", i2c_set, set_options},
    {"i2c", "dump", "", "prints a table of registers", i2c_dump, dump_options},
    {"i2c", "transfer", "[w BYTE...] [r COUNT]...", "sends and receives plain messages", i2c_transfer,
     transfer_options},
    {"token", "list", "", "lists the tokens", token_list, {}},
    {"token", "show", "NAME", "prints a token", token_show, token_options},
    {"conf", "check", "[FILE]", "checks a configuration", conf_check, {}},
    {"conf", "show", "", "prints the configuration in force", conf_show, {}},
};

} // namespace

} // namespace zol_tool

int main(int argc, char **argv)
{
    kiv::keep_standard_descriptors();
    const zol_tool::words arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    int status = 0;
    {
        zol_tool::output out;
        try {
            status = zol_tool::run_command_line(zol_tool::commands, arguments, out);
        } catch (const std::exception &failure) { // no memory, no thread
            out.error(failure.what());
            status = zol_tool::refused;
        }
        status = out.finish(status);
    }
    zol_tool::end_by_signal(status);
    return status;
}
