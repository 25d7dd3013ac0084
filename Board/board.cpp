#include "board.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <optional>

#include "requests.h"

namespace kivboard
{
namespace
{

constexpr useconds_t poll_pause_us = 100'000;

// The terminal sends its signals to COMMAND as well. Those of other processes are meant for it, too.
void forward(const signalfd_siginfo &signal, pid_t command)
{
    if (signal.ssi_code != SI_KERNEL) {
        kill(command, static_cast<int>(signal.ssi_signo));
    }
}

bool has_ended(pid_t command, int signal_fd, int &status)
{
    signalfd_siginfo signal = {};
    if (read(signal_fd, &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal) &&
        signal.ssi_signo != SIGCHLD) {
        forward(signal, command);
    }
    return waitpid(command, &status, WNOHANG) == command;
}

std::string join(const std::vector<std::string> &words)
{
    std::string line;
    for (const std::string &word : words) {
        line += (line.empty() ? "" : " ") + word;
    }
    return line;
}

template <typename... functions>
struct overloaded : functions... {
    using functions::operator()...;
};
template <typename... functions>
overloaded(functions...) -> overloaded<functions...>;

} // namespace

running_board::running_board(const board_description &description)
    : buses_(description.buses, files_, journal_), pins_(description.pins, files_, journal_),
      waits_(pins_, buses_, journal_),
      control_([this](const auto &words, control_session &session) { return answer(words, session); })
{
}

std::vector<bind_graft> running_board::grafts() const
{
    std::vector<bind_graft> grafts = buses_.grafts();
    if (!pins_.is_empty()) {
        grafts.push_back({gpio_bank::source_root, gpio_bank::target_root});
    }
    return grafts;
}

int running_board::serve(pid_t command, int fuse_fd, int signal_fd)
{
    for (;;) {
        bool signalled = false;
        wait_and_serve(signal_fd, fuse_fd, signalled);
        if (int status = 0; signalled && has_ended(command, signal_fd, status)) {
            files_.later().make_all(); // libfuse frees no request that is without an answer
            return status;
        }
        tell_followers();
    }
}

void running_board::wait_and_serve(int signal_fd, int fuse_fd, bool &signalled)
{
    std::vector<pollfd> ready = {{signal_fd, POLLIN, 0},
                                 {is_mounted_ ? fuse_fd : -1, POLLIN, 0},
                                 {control_.fd(), POLLIN, 0},
                                 {files_.later().fd(), POLLIN, 0}};
    const std::size_t first_client = ready.size();
    for (const control_server::interest &client : control_.interests()) {
        ready.push_back({client.fd, client.events, 0});
    }
    if (poll(ready.data(), ready.size(), control_.poll_timeout_ms()) < 0 && errno != EINTR) {
        std::perror("kivboard: poll");
        usleep(poll_pause_us);
    }
    signalled = ready[0].revents != 0;
    if (ready[1].revents != 0) {
        is_mounted_ = files_.serve_one();
        control_.settle();
    }
    if (ready[3].revents != 0) {
        files_.later().make_due();
    }
    for (std::size_t i = first_client; i < ready.size(); ++i) {
        if (ready[i].revents != 0) {
            control_.serve(ready[i].fd);
        }
    }
    control_.settle();           // deadlines
    if (ready[2].revents != 0) { // last: a new client may get the descriptor of one that has left
        control_.accept();
    }
}

// Without followers too, the place is kept up to date: a new follower has got all lines in the answer to its request.
void running_board::tell_followers()
{
    for (const journal_format format : {journal_format::text, journal_format::json}) {
        if (followed_ != journal_.next_number() && control_.has_followers(format)) {
            control_.follow(format, journal_.from(followed_, format));
        }
    }
    followed_ = journal_.next_number();
}

// The words of a request that changes the board are its stimulus in the journal.
control_reply running_board::answer(const std::vector<std::string> &words, control_session &session)
{
    std::string problem;
    const std::optional<request> parsed = parse_request(words, problem);
    if (!parsed) {
        return control_reply::error(problem);
    }
    const std::uint64_t first = journal_.next_number();
    session.since = session.since != 0 ? session.since : first;
    control_reply reply =
        std::visit(overloaded{[&](const peek_request &asked) { return buses_.answer(asked); },
                              [&](const poke_request &asked) { return buses_.answer(asked); },
                              [&](const journal_request &asked) { return answer(asked); },
                              [&](const wait_request &asked) { return waits_.begin(asked, session); },
                              [&](const auto &asked) { return pins_.answer(asked); }},
                   *parsed);
    if (journal_.next_number() != first) {
        journal_.mark_stimulus(first, join(words));
        session.since = first;
    }
    return reply;
}

control_reply running_board::answer(const journal_request &asked)
{
    return {true, journal_.from(1, asked.format), asked.follow ? std::optional(asked.format) : std::nullopt};
}

} // namespace kivboard
