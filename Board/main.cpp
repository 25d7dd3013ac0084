// kivboard: the command line of the virtual board.

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "board.h"
#include "common/standard_streams.h"
#include "requests.h"

namespace
{

using kivboard::sandbox_plan;
using words = std::vector<std::string>;

constexpr int exit_usage = 2;
constexpr int exit_cannot_run =
    77; // a board cannot run on this machine: what test runners take for "skipped"
constexpr int exit_no_command = 127;

constexpr char usage_text[] =
    "usage: kivboard run [OPTION...] -- COMMAND [ARGUMENT...]\n"
    "       kivboard raise|level|fail|mend|peek|poke|journal ...\n"
    "       kivboard -\n"
    "       kivboard check\n"
    "\n"
    "run starts a virtual board and runs COMMAND on it: in a file system of its own, in which the\n"
    "board's device nodes exist, and /var/log/zol, /media/internal and /etc/kiv are writable.\n"
    "  --board FILE          the board's devices (else Conf/kiv_board.xml, the installed one, or\n"
    "                        /etc/kiv/kiv_board.xml, the first that exists)\n"
    "  --conf FILE           shows FILE as /etc/kiv/conf.xml\n"
    "  --bind SOURCE:TARGET  shows a file or directory of the machine at another place\n"
    "  --socket PATH         where the board answers the commands below\n"
    "\n"
    "From inside COMMAND or from another terminal (--socket PATH right after the command, else\n"
    "$KIVBOARD_SOCKET, else the default):\n"
    "  raise PIN [COUNT]                    interrupts of a pin: COUNT pulses, else one\n"
    "  level PIN [VALUE]                    shows the level of a pin, or sets it at the input, which\n"
    "                                       interrupts at a change (edge-triggered) or when it is 1\n"
    "                                       (level-triggered)\n"
    "  fail PIN NODE OPERATION              from now on an operation fails: open, read, write or poll\n"
    "                                       of level, irq, irqmask, irqrequest or irqconfig\n"
    "  mend PIN [NODE [OPERATION]]          it works again; all of a node, or of the pin\n"
    "  peek BUS ADDRESS REGISTER [COUNT]    shows registers of a device\n"
    "  poke BUS ADDRESS REGISTER VALUE...   sets them\n"
    "  journal [--follow]                   shows what the board saw, a line each:\n"
    "                                         1 i2c-4 0x18 W[0f] R[33] ok\n"
    "                                         2 i2c-4 0x55 W[0f] R[1 bytes] no answer\n"
    "                                         3 i2c-4 0x18 poke 0x0f=[2a]\n"
    "                                         4 gpio_17 irqmask W[0] ok\n"
    "                                         5 gpio_17 raise 3: counted, 3 pending\n"
    "                                         6 gpio_17 irq R[3] ok\n"
    "                                         7 gpio_5 raise 1: dropped, not requested\n"
    "  -                                    takes such commands from the standard input, a line each,\n"
    "                                       all over one connection: the way to raise many interrupts\n"
    "\n"
    "A pin shows as /sys/user_hw/pins/gpios/gpio_N/. What is raised is counted while the interrupt is\n"
    "requested (irqrequest 1) and not masked (irqmask 0), else dropped, and raise says so. irq has\n"
    "POLLPRI while something is counted; reading it from the start shows the count, which is 0 then.\n"
    "A node that fails gives EIO, and to poll POLLERR.\n"
    "\n"
    "check tells, by its exit status and one line, whether a board can run on this machine.\n"
    "\n"
    "Numbers are decimal, or hexadecimal with 0x. Exit status: that of COMMAND (128 + N when signal\n"
    "N ended it), 1 for a refused request or output that can't be written, 2 for a wrong usage or\n"
    "board file, 77 when a board cannot run here.\n";

int usage_error(const std::string &what)
{
    std::fprintf(stderr, "kivboard: %s; see kivboard --help\n", what.c_str());
    return exit_usage;
}

int complain(int status, const std::string &what)
{
    std::fprintf(stderr, "kivboard: %s\n", what.c_str());
    return status;
}

std::string default_socket()
{
    const char *const runtime = std::getenv("XDG_RUNTIME_DIR");
    return std::string(runtime != nullptr && *runtime != '\0' ? runtime : "/tmp") + "/kivboard-" +
           std::to_string(getuid()) + ".sock";
}

// What is installed with the program is found from where the program is: the tree may have been moved.
std::string installed_board_file()
{
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    return (program.parent_path() / KIVBOARD_FILE_FROM_PROGRAM).lexically_normal();
}

std::string default_board_file()
{
    for (const std::string &candidate :
         {std::string("Conf/kiv_board.xml"), installed_board_file(), std::string("/etc/kiv/kiv_board.xml")}) {
        if (access(candidate.c_str(), R_OK) == 0) {
            return candidate;
        }
    }
    return "Conf/kiv_board.xml";
}

struct run_options {
    std::string board_file = default_board_file();
    std::string socket;
    std::vector<kivboard::bind_graft> binds;
    words command;
    std::string mistake;
};

bool add_bind(run_options &options, const std::string &source, const std::string &target)
{
    std::error_code error;
    const std::string absolute = std::filesystem::canonical(source, error);
    if (error || !target.starts_with('/')) {
        options.mistake = error ? "can't show " + source + ": " + error.message()
                                : "the target must be an absolute path: " + target;
        return false;
    }
    options.binds.push_back({absolute, target});
    return true;
}

bool set_board(run_options &options, const std::string &value)
{
    options.board_file = value;
    return true;
}

bool set_socket(run_options &options, const std::string &value)
{
    options.socket = value;
    return true;
}

bool set_conf(run_options &options, const std::string &value)
{
    return add_bind(options, value, "/etc/kiv/conf.xml");
}

bool set_bind(run_options &options, const std::string &value)
{
    const std::size_t colon = value.find(':');
    if (colon == std::string::npos) {
        options.mistake = "--bind needs SOURCE:TARGET";
        return false;
    }
    return add_bind(options, value.substr(0, colon), value.substr(colon + 1));
}

constexpr struct {
    const char *name;
    bool (*set)(run_options &, const std::string &value);
} run_option_table[] = {
    {"--board", set_board}, {"--socket", set_socket}, {"--conf", set_conf}, {"--bind", set_bind}};

bool apply_run_option(run_options &options, const std::string &name, const words &arguments,
                      std::size_t &next)
{
    for (const auto &[known, set] : run_option_table) {
        if (name == known && next < arguments.size()) {
            return set(options, arguments[next++]);
        }
        if (name == known) {
            options.mistake = name + " needs a value";
            return false;
        }
    }
    options.mistake = "run does not know " + name;
    return false;
}

run_options parse_run(const words &arguments)
{
    run_options options;
    std::size_t next = 0;
    while (next < arguments.size() && arguments[next].starts_with("--")) {
        const std::string &name = arguments[next++];
        if (name == "--" || !apply_run_option(options, name, arguments, next)) {
            break;
        }
    }
    options.command.assign(arguments.begin() + static_cast<std::ptrdiff_t>(next), arguments.end());
    if (options.mistake.empty() && options.command.empty()) {
        options.mistake = "run needs a COMMAND";
    }
    return options;
}

// A message that carries one descriptor over a socket.
struct descriptor_message {
    descriptor_message()
    {
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
    }
    descriptor_message(const descriptor_message &) = delete;
    descriptor_message &operator=(const descriptor_message &) = delete;

    char data = 0;
    iovec part{&data, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header = {};
};

void hand_over(int fd, int channel)
{
    descriptor_message message;
    cmsghdr *const rights = CMSG_FIRSTHDR(&message.header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(rights), &fd, sizeof fd);
    sendmsg(channel, &message.header, MSG_NOSIGNAL);
    close(fd);
}

kiv::unique_fd take_over(int channel)
{
    descriptor_message message;
    ssize_t got = 0;
    do {
        got = recvmsg(channel, &message.header, MSG_CMSG_CLOEXEC);
    } while (got < 0 && errno == EINTR);
    const cmsghdr *const rights = got > 0 ? CMSG_FIRSTHDR(&message.header) : nullptr;
    int fd = -1;
    if (rights != nullptr && rights->cmsg_type == SCM_RIGHTS) {
        std::memcpy(&fd, CMSG_DATA(rights), sizeof fd);
    }
    return kiv::unique_fd(fd);
}

[[noreturn]] void become_command(const run_options &options, const sandbox_plan &plan, int channel,
                                 const sigset_t &former_mask)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM); // nothing works here any more once the board is gone
    std::string problem = kivboard::enter_namespaces();
    if (problem.empty()) {
        problem = kivboard::graft(plan, hand_over, channel);
    }
    if (!problem.empty()) {
        _exit(complain(exit_cannot_run, problem));
    }
    setenv("KIVBOARD_SOCKET", options.socket.c_str(), 1);
    sigprocmask(SIG_SETMASK, &former_mask, nullptr);
    std::vector<char *> arguments;
    for (const std::string &word : options.command) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(complain(exit_no_command, options.command[0] + ": " + std::strerror(errno)));
}

int exit_status(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int serve_command(kivboard::running_board &board, pid_t command, int channel, int signal_fd)
{
    const kiv::unique_fd fuse = take_over(channel);
    if (!fuse.is_open()) { // the child has said why
        int status = 0;
        waitpid(command, &status, 0);
        return exit_status(status);
    }
    if (!board.files().attach(fuse.get())) {
        kill(command, SIGKILL);
        return complain(1, "can't serve the board's file system");
    }
    return exit_status(board.serve(command, fuse.get(), signal_fd));
}

int run_on(kivboard::running_board &board, const run_options &options)
{
    const sandbox_plan plan{board.grafts(), {"/var/log/zol", "/media/internal", "/etc/kiv"}, options.binds};
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return complain(1, std::strerror(errno));
    }
    const kiv::unique_fd ours(ends[0]);
    kiv::unique_fd theirs(ends[1]);
    sigset_t handled;
    sigset_t former;
    sigemptyset(&handled);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&handled, signal);
    }
    sigprocmask(SIG_BLOCK, &handled, &former);
    const kiv::unique_fd signals(signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK));
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        become_command(options, plan, theirs.get(), former);
    }
    theirs.reset();
    if (child < 0) {
        return complain(1, std::strerror(errno));
    }
    return serve_command(board, child, ours.get(), signals.get());
}

// Without a path of its own a board takes the default one, and where that is taken, one of its own making.
std::string choose_socket(const std::string &wanted)
{
    std::string path = wanted.empty() ? default_socket() : wanted;
    if (!wanted.empty() || !kivboard::is_board_at(path)) {
        return path;
    }
    return path.substr(0, path.size() - std::strlen(".sock")) + "-" + std::to_string(getpid()) + ".sock";
}

int command_run(const words &arguments)
{
    run_options options = parse_run(arguments);
    if (!options.mistake.empty()) {
        return usage_error(options.mistake);
    }
    std::string problem;
    const std::optional<kivboard::board_description> description =
        kivboard::read_board_file(options.board_file, problem);
    if (!description) {
        return complain(exit_usage, problem);
    }
    options.socket = choose_socket(options.socket);
    kivboard::running_board board(*description);
    problem = board.control().listen(options.socket);
    return problem.empty() ? run_on(board, options) : complain(1, problem);
}

int command_check(const words &arguments)
{
    if (!arguments.empty()) {
        return usage_error("check takes no arguments");
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        std::string problem = kivboard::enter_namespaces();
        if (problem.empty()) {
            int fuse_fd = -1;
            problem = kivboard::mount_fuse("/dev", fuse_fd);
        }
        _exit(problem.empty() ? 0
                              : complain(exit_cannot_run, "a virtual board cannot run here: it " + problem));
    }
    int status = 0;
    waitpid(child, &status, 0);
    return exit_status(status);
}

// Takes "--socket PATH" off the front of the arguments. @return Where the board answers.
std::string take_socket(words &arguments)
{
    if (arguments.size() >= 2 && arguments[0] == "--socket") {
        std::string socket = arguments[1];
        arguments.erase(arguments.begin(), arguments.begin() + 2);
        return socket;
    }
    const char *const inherited = std::getenv("KIVBOARD_SOCKET");
    return inherited != nullptr ? inherited : default_socket();
}

int complain_of_no_board(const std::string &socket)
{
    return complain(1, "no board answers at " + socket);
}

int command_request(const kivboard::request_form &form, words arguments)
{
    const std::string socket = take_socket(arguments);
    arguments.insert(arguments.begin(), form.name);
    if (const std::string problem = kivboard::misuse(form, arguments); !problem.empty()) {
        return usage_error(problem);
    }
    std::string line;
    for (const std::string &word : arguments) {
        line += word + " ";
    }
    std::replace(line.begin(), line.end(), '\n', ' '); // one command is one request
    kivboard::board_connection board(socket);
    return board.is_open() ? board.ask(line) : complain_of_no_board(socket);
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
        return complain_of_no_board(socket);
    }
    int status = 0;
    for (std::string line; board.is_open() && std::getline(std::cin, line);) {
        if (line.find_first_not_of(" \t\r") != std::string::npos) {
            status = std::max(status, board.ask(line));
        }
    }
    return status;
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
} commands[] = {{"run", command_run},     {"check", command_check}, {"-", command_requests},
                {"--help", command_help}, {"-h", command_help},     {"--version", command_version}};

int run_command_line(const words &arguments)
{
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
    const words arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    return kiv::after_output("kivboard", run_command_line(arguments));
}
