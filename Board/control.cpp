#include "control.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <sstream>

namespace kivboard
{
namespace
{

constexpr std::size_t longest_request = 4096;
constexpr std::size_t longest_backlog = 16'777'216; // what a client that does not read may leave waiting

bool make_address(const std::string &path, sockaddr_un &address)
{
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return false;
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

kiv::unique_fd connect_to(const std::string &path)
{
    sockaddr_un address;
    kiv::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!make_address(path, address) ||
        connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        fd.reset();
    }
    return fd;
}

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

control_server::~control_server()
{
    if (listener_.is_open()) {
        unlink(path_.c_str());
    }
}

std::string control_server::listen(const std::string &path)
{
    sockaddr_un address;
    if (!make_address(path, address)) {
        return "the path of the socket is too long: " + path;
    }
    if (is_board_at(path)) {
        return "another board answers at " + path;
    }
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
        unlink(path.c_str()); // of a board that was killed
    }
    kiv::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const mode_t former = umask(0177);
    const bool bound = bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    const int error = errno;
    umask(former);
    if (!bound || ::listen(fd.get(), SOMAXCONN) != 0) {
        return "can't listen at " + path + ": " + std::strerror(bound ? errno : error);
    }
    path_ = path;
    listener_ = std::move(fd);
    return "";
}

void control_server::accept()
{
    kiv::unique_fd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (fd.is_open()) {
        clients_.push_back({std::move(fd), "", "", false, false});
    }
}

std::vector<control_server::interest> control_server::interests() const
{
    std::vector<interest> list;
    for (const client &each : clients_) {
        list.push_back({each.fd.get(), each.reply.empty() ? short{POLLIN} : short{POLLOUT}});
    }
    return list;
}

void control_server::receive(client &from)
{
    char block[512];
    const ssize_t got = recv(from.fd.get(), block, sizeof block, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    from.gone = got <= 0 || from.follows; // one who follows and talks is out of turn
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

// Answers the lines that have come, as far as the client takes the answers.
void control_server::answer(client &to)
{
    std::size_t end = 0;
    while (to.reply.empty() && !to.gone && !to.follows &&
           (end = to.requests.find('\n')) != std::string::npos) {
        const control_reply reply = handle_(split(to.requests.substr(0, end)));
        to.requests.erase(0, end + 1);
        to.follows = reply.follow;
        to.reply = std::string(!reply.ok      ? "error"
                               : reply.follow ? "follow"
                                              : "ok") +
                   " " + std::to_string(reply.text.size()) + "\n" + reply.text;
        send(to);
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
    }
}

bool control_server::has_followers() const
{
    return std::any_of(clients_.begin(), clients_.end(), [](const client &each) { return each.follows; });
}

void control_server::follow(const std::string &text)
{
    for (client &each : clients_) {
        if (each.follows && each.reply.size() < longest_backlog) {
            each.reply += text;
        }
    }
}

bool is_board_at(const std::string &path)
{
    return connect_to(path).is_open();
}

board_connection::board_connection(const std::string &path) : fd_(connect_to(path)) {}

bool board_connection::receive()
{
    char block[4096];
    ssize_t got = 0;
    do {
        got = recv(fd_.get(), block, sizeof block, 0);
    } while (got < 0 && errno == EINTR);
    received_.append(block, got > 0 ? static_cast<std::size_t>(got) : 0);
    return got > 0;
}

void board_connection::print(std::size_t size, FILE *to)
{
    do {
        const std::size_t ready = std::min(size, received_.size());
        if (std::fwrite(received_.data(), 1, ready, to) != ready || std::fflush(to) != 0) {
            fd_.reset(); // what else comes has nowhere to go
            return;
        }
        received_.erase(0, ready);
        size -= ready;
    } while (size > 0 && receive());
}

int board_connection::ask(const std::string &request)
{
    const std::string line = request + "\n";
    send(fd_.get(), line.data(), line.size(), MSG_NOSIGNAL);
    std::size_t end = 0;
    while ((end = received_.find('\n')) == std::string::npos) {
        if (!receive()) {
            std::fputs("kivboard: the board has gone\n", stderr);
            fd_.reset();
            return 1;
        }
    }
    std::istringstream head(received_.substr(0, end));
    received_.erase(0, end + 1);
    std::string status;
    std::size_t size = 0;
    head >> status >> size;
    const bool refused = status == "error";
    std::fputs(refused ? "kivboard: " : "", stderr);
    print(status == "follow" ? std::numeric_limits<std::size_t>::max() : size, refused ? stderr : stdout);
    return refused ? 1 : 0;
}

} // namespace kivboard
