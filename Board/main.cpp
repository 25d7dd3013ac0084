// kivboard: the command line of the virtual board.

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "board_connection.h"
#include "control_socket.h"
#include "player.h"
#include "requests.h"
#include "run.h"
#include "standard_streams.h"

namespace
{

using kivboard::complain;
using kivboard::run_options;
using words = std::vector<std::string>;

constexpr char usage_text[] =
    R"(usage: kivboard run [OPTION...] -- COMMAND [ARGUMENT...]
       kivboard raise|level|fail|mend|peek|poke|wait|journal ...
       kivboard play FILE
       kivboard -
       kivboard check

run starts a virtual board and runs COMMAND on it: in a file system of its own, in which the
board's device nodes exist, and /var/log/zol, /media/internal and /etc/kiv are writable.
  --board FILE          the board's description (else Conf/kiv_board.xml, the installed one, or
                        /etc/kiv/kiv_board.xml, the first that exists)
  --conf FILE           shows FILE as /etc/kiv/conf.xml (else kiv_test.xml from those places)
  --bind SOURCE:TARGET  shows a file or directory of the machine at another place
  --socket PATH         the place where the board answers commands (else the default; when another
                        board has that, a new one, which is printed)

From inside COMMAND or from another terminal (--socket PATH right after the command, else
$KIVBOARD_SOCKET, else the default):
  raise PIN [COUNT]                    interrupts of a pin: COUNT pulses, else one
  level PIN [VALUE]                    shows the level of a pin, or sets it at the input, which
                                       interrupts at a change (edge-triggered) or when it is 1
                                       (level-triggered)
  fail PIN NODE OPERATION              from now on an operation fails: open, read, write or poll
                                       of level, irq, irqmask, irqrequest or irqconfig
  mend PIN [NODE [OPERATION]]          it works again; all of a node, or of the pin
  peek BUS ADDRESS REGISTER [COUNT]    shows registers of a device
  poke BUS ADDRESS REGISTER VALUE...   sets them
  wait pin PIN requested               waits until an interrupt of the pin would be counted,
  wait pin PIN is VALUE                until the pin has this level,
  wait transfer BUS ADDRESS            or until a program has addressed the device; all of them
                                       take --timeout TIME: 250us, 20ms, 1.5s, 2min or 1h
  journal [--json] [--follow]          shows the transfers, writes and interrupts, a line each:
                                         1 i2c-4 0x18 W[0f] R[33] ok
                                         2 i2c-4 0x55 W[0f] R[1 bytes] no answer
                                         3 i2c-4 0x18 poke 0x0f=[2a]
                                         4 gpio_17 irqmask W[0] ok
                                         5 gpio_17 raise 3: counted, 3 pending
                                         6 gpio_17 irq R[3] ok
                                         7 gpio_5 raise 1: dropped, not requested
  play FILE                            plays stimuli at their times and checks the board, then tells
                                       how many faults there were; kivboard(1) explains the lines:
                                         wait pin 17 requested within 2s
                                         +20ms raise 17              20 ms after the line before
                                         @1.5s poke 4 0x18 0x28 0x10 after the start of the play
                                         repeat 100 every 5ms raise 17
                                         expect reg 4 0x18 0x20 = 0x57
                                       The output of journal --json is such a file too: its
                                       stimuli are played again.
  -                                    reads such commands from the standard input, a line each,
                                       and sends them over one connection: the way to raise many
                                       interrupts

A pin shows as /sys/user_hw/pins/gpios/gpio_N/. An interrupt is counted if it is requested
(irqrequest 1) and not masked (irqmask 0), else it is dropped, and raise says so. While the count
is not 0, irq has POLLPRI. Reading irq from the start shows the count and clears it. A node that
fails gives EIO, and POLLERR to poll.

check tells, by its exit status and one line, whether a board can run on this machine.

Numbers are decimal, or hexadecimal with 0x. The exit status of run is that of COMMAND, 128 + N
when signal N ended it. Else it is 1 for a failed request or play, or output that cannot be written,
2 for a wrong usage, board file or play file, and 77 when a board cannot run here.
)";

int usage_error(const std::string &what)
{
    return complain(kivboard::exit_usage, what + "; see kivboard --help");
}

// The places of an installed file, in the order of the search. The installation may have been moved, so its place
// is relative to the program.
words places_of(const std::string &name)
{
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::filesystem::path installed = program.parent_path() / KIVBOARD_DATA_FROM_PROGRAM / name;
    return {"Conf/" + name, installed.lexically_normal(), "/etc/kiv/" + name};
}

// @return "" when there is no such file.
std::string find_file(const std::string &name)
{
    const words places = places_of(name);
    const auto found = std::find_if(places.begin(), places.end(), [](const std::string &place) {
        return access(place.c_str(), R_OK) == 0;
    });
    return found != places.end() ? *found : "";
}

struct run_arguments {
    run_options options;
    std::string mistake; // the latest; parsing ends with the first
};

void set_bind(run_arguments &parsed, const std::string &source, const std::string &target,
              kivboard::bind_graft &bind)
{
    std::error_code error;
    bind.source = std::filesystem::canonical(source, error);
    bind.target = std::filesystem::path(target + "/").lexically_normal().parent_path();
    if (error) {
        parsed.mistake = "can't show " + source + ": " + error.message();
    } else if (!target.starts_with('/')) {
        parsed.mistake = "the target must be an absolute path: " + target;
    }
}

void set_board(run_arguments &parsed, const std::string &value)
{
    parsed.options.board_file = value;
}

void set_socket(run_arguments &parsed, const std::string &value)
{
    parsed.options.socket = value;
}

void set_conf(run_arguments &parsed, const std::string &value)
{
    set_bind(parsed, value, "/etc/kiv/conf.xml", parsed.options.conf);
}

void add_bind(run_arguments &parsed, const std::string &value)
{
    const std::size_t colon = value.find(':');
    if (colon == std::string::npos) {
        parsed.mistake = "--bind needs SOURCE:TARGET";
        return;
    }
    set_bind(parsed, value.substr(0, colon), value.substr(colon + 1), parsed.options.binds.emplace_back());
}

constexpr struct {
    const char *name;
    void (*set)(run_arguments &, const std::string &value);
} run_option_table[] = {
    {"--board", set_board}, {"--socket", set_socket}, {"--conf", set_conf}, {"--bind", add_bind}};

// Applies an option: "--name VALUE" or "--name=VALUE". @return The place of the next argument.
std::size_t apply_run_option(run_arguments &parsed, const words &arguments, std::size_t at)
{
    const std::string &option = arguments[at];
    const std::size_t equals = option.find('=');
    const std::string name = option.substr(0, equals);
    const auto *const found = std::find_if(std::begin(run_option_table), std::end(run_option_table),
                                           [&name](const auto &each) { return name == each.name; });
    if (found == std::end(run_option_table)) {
        parsed.mistake = "run does not know " + name;
    } else if (equals != std::string::npos) {
        found->set(parsed, option.substr(equals + 1));
    } else if (at + 1 == arguments.size()) {
        parsed.mistake = name + " needs a value";
    } else {
        found->set(parsed, arguments[at + 1]);
        return at + 2;
    }
    return at + 1;
}

run_arguments parse_run(const words &arguments)
{
    run_arguments parsed;
    std::size_t at = 0;
    while (parsed.mistake.empty() && at < arguments.size() && arguments[at].starts_with("--") &&
           arguments[at] != "--") {
        at = apply_run_option(parsed, arguments, at);
    }
    at += at < arguments.size() && arguments[at] == "--" ? 1 : 0;
    parsed.options.command.assign(arguments.begin() + static_cast<std::ptrdiff_t>(at), arguments.end());
    if (parsed.mistake.empty() && parsed.options.command.empty()) {
        parsed.mistake = "run needs a COMMAND";
    }
    return parsed;
}

// Finds the files that the command line does not name. A board needs no configuration.
void find_files(run_arguments &parsed)
{
    if (parsed.options.board_file.empty()) {
        parsed.options.board_file = find_file("kiv_board.xml");
    }
    const std::string conf = find_file("kiv_test.xml");
    if (parsed.options.conf.source.empty() && !conf.empty()) {
        set_conf(parsed, conf);
    }
}

int complain_of_no_description()
{
    const words places = places_of("kiv_board.xml");
    return complain(kivboard::exit_usage, "there is no description of the board: neither " + places[0] +
                                              " nor " + places[1] + " nor " + places[2] +
                                              "; name one with --board FILE");
}

int command_run(const words &arguments)
{
    run_arguments parsed = parse_run(arguments);
    if (parsed.mistake.empty()) {
        find_files(parsed);
    }
    if (!parsed.mistake.empty()) {
        return usage_error(parsed.mistake);
    }
    return parsed.options.board_file.empty() ? complain_of_no_description() : kivboard::run(parsed.options);
}

int command_check(const words &arguments)
{
    return arguments.empty() ? kivboard::check() : usage_error("check takes no arguments");
}

// Removes "--socket PATH" from the front of the arguments. @return The path of the board's socket.
std::string take_socket(words &arguments)
{
    if (arguments.size() >= 2 && arguments[0] == "--socket") {
        std::string socket = arguments[1];
        arguments.erase(arguments.begin(), arguments.begin() + 2);
        return socket;
    }
    const char *const inherited = std::getenv("KIVBOARD_SOCKET");
    return inherited != nullptr && *inherited != '\0' ? inherited : kivboard::default_socket();
}

int command_request(const kivboard::request_form &form, words arguments)
{
    const std::string socket = take_socket(arguments);
    if (const std::string problem = kivboard::check_count(form, arguments.size()); !problem.empty()) {
        return usage_error(problem);
    }
    arguments.insert(arguments.begin(), form.name);
    std::string line;
    for (const std::string &word : arguments) {
        line += word + " ";
    }
    std::replace(line.begin(), line.end(), '\n', ' '); // one command is one request
    kivboard::board_connection board(socket);
    return board.is_open() ? board.ask(line) : complain(kivboard::exit_failure, board.problem());
}

int command_requests(const words &arguments)
{
    words rest = arguments;
    const std::string socket = take_socket(rest);
    if (!rest.empty()) {
        return usage_error("- takes no arguments");
    }
    kivboard::board_connection board(socket);
    if (!board.is_open()) {
        return complain(kivboard::exit_failure, board.problem());
    }
    int status = 0; // a request that fails does not end the others
    for (std::string line; board.is_open() && std::getline(std::cin, line);) {
        if (line.find_first_not_of(" \t\r") != std::string::npos) {
            status = std::max(status, board.ask(line));
        }
    }
    return status;
}

int command_play(const words &arguments)
{
    words rest = arguments;
    const std::string socket = take_socket(rest);
    return rest.size() == 1 ? kivboard::play(rest[0], socket) : usage_error("play needs FILE");
}

int command_help(const words &)
{
    std::fputs(usage_text, stdout);
    return 0;
}

int command_version(const words &)
{
    std::puts("kivboard " KIVBOARD_VERSION);
    return 0;
}

constexpr struct {
    const char *name;
    int (*run)(const words &arguments);
} commands[] = {{"run", command_run},          {"check", command_check}, {"-", command_requests},
                {"play", command_play},        {"--help", command_help}, {"-h", command_help},
                {"--version", command_version}};

int run_command_line(const words &arguments)
{
    if (arguments.size() > 1 && arguments[1] == "--help") {
        return command_help(arguments);
    }
    for (const auto &[name, run] : commands) {
        if (!arguments.empty() && arguments[0] == name) {
            return run(words(arguments.begin() + 1, arguments.end()));
        }
    }
    const kivboard::request_form *const form =
        !arguments.empty() ? kivboard::find_request(arguments[0]) : nullptr;
    if (form != nullptr) {
        return command_request(*form, words(arguments.begin() + 1, arguments.end()));
    }
    return usage_error(arguments.empty() ? "a command is needed" : "there is no command " + arguments[0]);
}

} // namespace

int main(int argc, char **argv)
{
    kiv::keep_standard_descriptors();
    std::signal(SIGCHLD, SIG_DFL); // if the parent ignores it, COMMAND's end would not be noticed
    const words arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    return kiv::after_output("kivboard", run_command_line(arguments));
}
