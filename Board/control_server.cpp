#include "control_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

namespace kivboard
{
namespace
{

constexpr std::chrono::milliseconds accept_pause(100);
constexpr std::size_t longest_backlog = 16'777'216; // unsent text, of a client that does not read

std::vector<std::string> split(const std::string &line)
{
    std::istringstream text(line);
    std::vector<std::string> words;
    for (std::string word; text >> word;) {
        words.push_back(word);
    }
    return words;
}

} // namespace

bool control_server::is_pausing() const
{
    return std::chrono::steady_clock::now() < pause_end_;
}

int control_server::poll_timeout_ms() const
{
    using clock = std::chrono::steady_clock;
    const clock::time_point now = clock::now();
    clock::time_point next = is_pausing() ? now + accept_pause : clock::time_point::max();
    for (const client &each : clients_) {
        next = is_waiting(each) ? std::min(next, each.awaited.deadline) : next;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(std::max(next, now) - now);
    return next == clock::time_point::max() ? -1 : static_cast<int>(left.count());
}

// At the limit of descriptors the client stays in the queue, and poll() would report it without end.
void control_server::accept()
{
    kiv::unique_fd fd = socket_.accept();
    if (fd.is_open()) {
        clients_.push_back({std::move(fd), "", "", {}, false});
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        pause_end_ = std::chrono::steady_clock::now() + accept_pause;
    }
}

std::vector<control_server::interest> control_server::interests() const
{
    std::vector<interest> interests;
    for (const client &each : clients_) {
        const bool is_full =
            is_waiting(each) && each.requests.size() > longest_request; // POLLHUP tells its end
        const short incoming = is_full ? 0 : POLLIN;
        interests.push_back({each.fd.get(), each.reply.empty() ? incoming : short{POLLOUT}});
    }
    return interests;
}

void control_server::receive(client &from)
{
    char block[512];
    const ssize_t got = recv(from.fd.get(), block, sizeof block, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    from.gone = got <= 0 || from.follows; // a client that follows must not send
    if (!from.gone) {
        from.requests.append(block, static_cast<std::size_t>(got));
    }
}

void control_server::send(client &to)
{
    const ssize_t sent = ::send(to.fd.get(), to.reply.data(), to.reply.size(), MSG_NOSIGNAL);
    if (sent > 0) {
        to.reply.erase(0, static_cast<std::size_t>(sent));
    } else if (errno != EAGAIN && errno != EINTR) {
        to.gone = true;
    }
}

void control_server::queue(client &to, const control_reply &reply)
{
    to.follows = reply.follow;
    const std::string status = !reply.ok ? "error " : reply.follow ? "follow " : "ok ";
    to.reply = status + std::to_string(reply.text.size()) + "\n" + reply.text;
}

// Sends nothing: poll() reports that the client can receive, and serve() goes on with its requests.
void control_server::settle()
{
    for (client &each : clients_) {
        if (control_reply known; is_waiting(each) && each.awaited.later(known)) {
            each.awaited = {};
            queue(each, known);
        }
    }
}

// Answers the complete lines, as long as the client takes the answers.
void control_server::answer(client &to)
{
    std::size_t end = 0;
    while (to.reply.empty() && !to.gone && !to.follows && !is_waiting(to) &&
           (end = to.requests.find('\n')) != std::string::npos) {
        const control_reply known = handle_(split(to.requests.substr(0, end)), to.session);
        to.requests.erase(0, end + 1);
        if (known.later != nullptr) {
            to.awaited = known;
        } else {
            queue(to, known);
            send(to);
        }
        settle();
    }
    to.gone = to.gone || (to.requests.size() > longest_request && end == std::string::npos);
}

void control_server::serve(int fd)
{
    const auto found = std::find_if(clients_.begin(), clients_.end(),
                                    [fd](const client &each) { return each.fd.get() == fd; });
    if (found == clients_.end()) {
        return;
    }
    if (found->reply.empty()) {
        receive(*found);
    } else {
        send(*found);
    }
    answer(*found);
    if (found->gone) {
        clients_.erase(found);
        pause_end_ = {}; // its descriptor is free
    }
}

bool control_server::has_followers(journal_format format) const
{
    return std::any_of(clients_.begin(), clients_.end(),
                       [format](const client &each) { return each.follows == format; });
}

void control_server::follow(journal_format format, const std::string &text)
{
    for (client &each : clients_) {
        if (each.follows == format && each.reply.size() < longest_backlog) {
            each.reply += text;
        }
    }
}

} // namespace kivboard
