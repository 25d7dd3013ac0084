#include "library_log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace zol_tool
{

namespace
{

constexpr int log_descriptors[] = {STDOUT_FILENO, STDERR_FILENO};

// Between the prefix of a log line and its text.
constexpr std::string_view prefix_end = " : \033[0m";

constexpr std::string_view tags[] = {"[ERRR][   KIV   ]", "[PRNT][   KIV   ]", "[INF1][   KIV   ]",
                                     "[INF2][   KIV   ]"};

bool is_log_line(std::string_view line)
{
    return std::ranges::any_of(tags, [line](auto tag) { return line.find(tag) != std::string_view::npos; });
}

std::string without_colours(std::string_view line)
{
    std::string plain;
    for (std::size_t escape = line.find('\033'); escape != std::string_view::npos;
         escape = line.find('\033')) {
        plain += line.substr(0, escape);
        const std::size_t end = line.find('m', escape);
        line.remove_prefix(end == std::string_view::npos ? line.size() : end + 1);
    }
    return plain += line;
}

// The position of the number in "errno 2" or "errno=2", or npos.
std::size_t error_number_at(std::string_view text)
{
    const std::size_t at = text.rfind("errno");
    return at != std::string_view::npos ? text.find_first_of("0123456789", at) : at;
}

// Puts the name of an error behind its number: "errno 2 (No such file or directory)".
std::string with_error_name(const std::string &text)
{
    const std::size_t at = error_number_at(text);
    const int number = at != std::string::npos ? std::atoi(text.c_str() + at) : 0;
    return number > 0 ? text + " (" + std::strerror(number) + ")" : text;
}

constexpr std::size_t most_joined = 3;

std::string joined(const std::vector<std::string> &errors)
{
    std::string text;
    for (std::size_t i = 0; i < std::min(errors.size(), most_joined); ++i) {
        text += (text.empty() ? "" : "; ") + errors[i];
    }
    return errors.size() <= most_joined
               ? text
               : text + "; and " + std::to_string(errors.size() - most_joined) + " more";
}

// Lines that only follow from another one, which says why.
constexpr std::string_view echoes[] = {"failed opening",
                                       " ret -1",
                                       ": result ",
                                       "can't open  of bus",
                                       "can't open file",
                                       "Trying to deini",
                                       "zol_choose_conf.sh: not found"};

bool is_echo(std::string_view error)
{
    return std::ranges::any_of(echoes,
                               [error](auto echo) { return error.find(echo) != std::string_view::npos; });
}

std::string reason_of(std::vector<std::string> errors)
{
    if (!std::ranges::all_of(errors, is_echo)) {
        std::erase_if(errors, is_echo);
    }
    return joined(errors);
}

// The text of an error without the prefix; empty for a failed assertion, whose reason is a line of its own.
std::string reason_in(std::string_view line)
{
    const std::size_t at = line.find(prefix_end);
    line.remove_prefix(at == std::string_view::npos ? 0 : at + prefix_end.size());
    return line.starts_with("ASSERT FAILED") ? "" : with_error_name(std::string(line));
}

} // namespace

library_log::library_log(output &out, bool is_shown) : out_(out), is_shown_(is_shown)
{
    if (pipe2(pipe_, O_CLOEXEC) != 0 || fcntl(pipe_[0], F_SETFL, O_NONBLOCK) != 0 ||
        (stop_ = eventfd(0, EFD_CLOEXEC)) < 0) {
        out_.error(std::string("no pipe for the log: ") + std::strerror(errno));
        std::exit(1);
    }
    // Lines of both streams are to arrive as they are logged.
    static_cast<void>(std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ));
    for (std::size_t i = 0; i < 2; ++i) {
        saved_[i] = fcntl(log_descriptors[i], F_DUPFD_CLOEXEC, 3);
    }
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(is_shown ? pipe_[1] : nowhere, STDOUT_FILENO);
    dup2(pipe_[1], STDERR_FILENO);
    close(nowhere);
    // Signals are for the thread of the command.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    reader_ = std::thread([this] { read_until_stopped(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

library_log::~library_log()
{
    std::fflush(stdout);
    for (std::size_t i = 0; i < 2; ++i) {
        dup2(saved_[i], log_descriptors[i]);
        close(saved_[i]);
    }
    eventfd_write(stop_, 1);
    reader_.join();
    read_all();
    if (!rest_.empty()) {
        take_line(std::exchange(rest_, {}));
    }
    for (const int descriptor : {pipe_[0], pipe_[1], stop_}) {
        close(descriptor);
    }
}

bool library_log::has_errors()
{
    read_all();
    const std::scoped_lock lock(mutex_);
    return !errors_.empty();
}

std::string library_log::take_reason()
{
    read_all();
    const std::scoped_lock lock(mutex_);
    const std::string reason = reason_of(std::exchange(errors_, {}));
    return reason.empty() || aside_.empty() ? reason : reason + "; at the start: " + aside_;
}

void library_log::set_aside()
{
    read_all();
    const std::scoped_lock lock(mutex_);
    aside_ = joined(std::exchange(errors_, {}));
}

void library_log::report_at_once()
{
    const std::scoped_lock lock(mutex_);
    reports_at_once_ = true;
}

bool library_log::has_reported()
{
    read_all();
    const std::scoped_lock lock(mutex_);
    return has_reported_;
}

void library_log::read_until_stopped()
{
    pollfd ready[] = {{pipe_[0], POLLIN, 0}, {stop_, POLLIN, 0}};
    while (ready[1].revents == 0) {
        if (poll(ready, std::size(ready), -1) > 0) {
            read_all();
        }
    }
}

// The threads that read take turns. So a thread that logs and then calls this finds its lines read.
void library_log::read_all()
{
    const std::scoped_lock lock(mutex_);
    std::array<char, 4096> bytes;
    ssize_t count = 0;
    while ((count = read(pipe_[0], bytes.data(), bytes.size())) > 0) {
        rest_.append(bytes.data(), static_cast<std::size_t>(count));
        for (std::size_t end = rest_.find('\n'); end != std::string::npos; end = rest_.find('\n')) {
            take_line(rest_.substr(0, end));
            rest_.erase(0, end + 1);
        }
    }
}

void library_log::take_line(const std::string &line)
{
    // If the log is shown, both streams get an error, one right after the other.
    if (is_shown_ && line == last_) {
        last_.clear();
        return;
    }
    last_ = line;
    if (is_shown_ || !(is_log_line(line) || is_echo(line))) {
        out_.diagnose((out_.errors_have_colours() ? line : without_colours(line)) + "\n");
    }
    std::string reason = line.find(tags[0]) != std::string::npos ? reason_in(line) : "";
    if (reason.empty()) {
        return;
    }
    if (reports_at_once_) {
        has_reported_ = true;
        out_.error(reason);
    } else {
        errors_.push_back(std::move(reason));
    }
}

} // namespace zol_tool
