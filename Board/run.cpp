#include "run.h"

#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>

#include "board.h"
#include "common/unique_fd.h"
#include "description_reader.h"

namespace kivboard
{
namespace
{

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

// Closes the descriptor afterwards: the server alone must hold it, so that the file system ends with it.
bool send_descriptor(int fd, int channel)
{
    descriptor_message message;
    cmsghdr *const rights = CMSG_FIRSTHDR(&message.header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(rights), &fd, sizeof fd);
    const bool sent = TEMP_FAILURE_RETRY(sendmsg(channel, &message.header, MSG_NOSIGNAL)) == 1;
    close(fd);
    return sent;
}

kiv::unique_fd receive_descriptor(int channel)
{
    descriptor_message message;
    const ssize_t got = TEMP_FAILURE_RETRY(recvmsg(channel, &message.header, MSG_CMSG_CLOEXEC));
    const cmsghdr *const rights = got > 0 ? CMSG_FIRSTHDR(&message.header) : nullptr;
    int fd = -1;
    if (rights != nullptr && rights->cmsg_type == SCM_RIGHTS) {
        std::memcpy(&fd, CMSG_DATA(rights), sizeof fd);
    }
    return kiv::unique_fd(fd);
}

// The things that the child needs from the board.
struct command_start {
    const run_options &options;
    std::vector<bind_graft> nodes;
    std::string socket; // an absolute path: the command may change its directory
    int channel;
    sigset_t signal_mask;
};

// @return 0, or the exit status after a complaint.
int enter_board(const command_start &start)
{
    sandbox files;
    std::string problem = enter_namespaces();
    if (problem.empty()) {
        problem = files.show_nodes(start.nodes, send_descriptor, start.channel);
    }
    if (problem.empty()) {
        problem = files.make_writable({"/var/log/zol", "/media/internal", "/etc/kiv"});
    }
    if (!problem.empty()) {
        return complain(exit_cannot_run, problem);
    }
    if (!start.options.conf.source.empty()) {
        problem = files.show_files({start.options.conf});
    }
    if (problem.empty()) {
        problem = files.show_files(start.options.binds);
    }
    if (!problem.empty()) {
        return complain(exit_usage, problem);
    }
    problem = files.enter_working_directory();
    return problem.empty() ? 0 : complain(exit_failure, problem);
}

[[noreturn]] void become_command(const command_start &start)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM); // without the board its files do not work
    if (const int status = enter_board(start); status != 0) {
        _exit(status);
    }
    setenv("KIVBOARD_SOCKET", start.socket.c_str(), 1);
    sigprocmask(SIG_SETMASK, &start.signal_mask, nullptr);
    std::vector<char *> arguments;
    for (const std::string &word : start.options.command) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(complain(exit_no_command, start.options.command[0] + ": " + std::strerror(errno)));
}

int exit_status(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int wait_for(pid_t child)
{
    int status = 0;
    TEMP_FAILURE_RETRY(waitpid(child, &status, 0));
    return exit_status(status);
}

// The child mounts the file system in its own namespace, so the descriptor comes from there.
int serve_command(running_board &board, pid_t command, int channel, int signal_fd)
{
    const kiv::unique_fd fuse = receive_descriptor(channel);
    if (!fuse.is_open()) { // the child has said why
        return wait_for(command);
    }
    if (!board.files().attach(fuse.get())) {
        kill(command, SIGKILL);
        return complain(exit_failure, "can't serve the board's file system");
    }
    return exit_status(board.serve(command, fuse.get(), signal_fd));
}

std::string absolute(const std::string &path)
{
    std::error_code error;
    const std::string whole = std::filesystem::absolute(path, error);
    return error ? path : whole;
}

int run_on(running_board &board, const run_options &options)
{
    command_start start{options, board.grafts(), absolute(board.control().socket().path()), -1, {}};
    sigset_t handled;
    sigemptyset(&handled);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&handled, signal);
    }
    sigprocmask(SIG_BLOCK, &handled, &start.signal_mask); // before the fork: COMMAND may end at once
    const kiv::unique_fd signals(signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK));
    int ends[2];
    if (!signals.is_open() || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return complain(exit_failure, std::string("can't start the board: ") + std::strerror(errno));
    }
    const kiv::unique_fd ours(ends[0]);
    kiv::unique_fd theirs(ends[1]);
    start.channel = theirs.get();
    const pid_t child = fork();
    if (child == 0) {
        become_command(start);
    }
    theirs.reset();
    if (child < 0) {
        return complain(exit_failure, std::string("can't start a process: ") + std::strerror(errno));
    }
    return serve_command(board, child, ours.get(), signals.get());
}

// A board at another socket than the default must say so: commands elsewhere need its path.
std::string claim_socket(control_socket &socket, const std::string &wanted)
{
    if (!wanted.empty()) {
        return socket.claim(wanted);
    }
    std::string problem = socket.claim_default();
    if (problem.empty() && socket.path() != default_socket()) {
        complain(0, "the default socket is not free; this board answers at --socket " + socket.path());
    }
    return problem;
}

} // namespace

int complain(int status, const std::string &what)
{
    std::fprintf(stderr, "kivboard: %s\n", what.c_str());
    return status;
}

int run(const run_options &options)
{
    std::string problem;
    const std::optional<board_description> description = read_description(options.board_file, problem);
    if (!description) {
        return complain(exit_usage, problem);
    }
    running_board board(*description);
    if (!board.problem().empty()) {
        return complain(exit_usage, board.problem());
    }
    problem = claim_socket(board.control().socket(), options.socket);
    return problem.empty() ? run_on(board, options) : complain(exit_failure, problem);
}

// Tries it in a child, whose namespaces and mounts end with it.
int check()
{
    const pid_t child = fork();
    if (child == 0) {
        std::string problem = enter_namespaces();
        if (problem.empty()) {
            int fuse_fd = -1;
            problem = mount_fuse("/dev", fuse_fd);
        }
        _exit(problem.empty() ? 0
                              : complain(exit_cannot_run, "a virtual board cannot run here: it " + problem));
    }
    return child > 0 ? wait_for(child)
                     : complain(exit_failure, std::string("can't start a process: ") + std::strerror(errno));
}

} // namespace kivboard
