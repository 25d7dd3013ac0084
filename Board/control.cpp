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
    if (got <= 0 || from.answered || from.request.size() > longest_request) {
        if (got != -1 || errno != EAGAIN) {
            from.follows = false; // gone, or talking out of turn
            from.answered = true;
        }
        return;
    }
    from.request.append(block, static_cast<std::size_t>(got));
    const std::size_t end = from.request.find('\n');
    if (end == std::string::npos) {
        return;
    }
    const control_reply reply = handle_(split(from.request.substr(0, end)));
    from.reply = (reply.ok ? "ok\n" : "error\n") + reply.text;
    from.answered = true;
    from.follows = reply.follow;
}

void control_server::send(client &to)
{
    const ssize_t sent = ::send(to.fd.get(), to.reply.data(), to.reply.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno != EAGAIN && errno != EINTR) {
        to.reply.clear();
        to.follows = false;
    } else if (sent > 0) {
        to.reply.erase(0, static_cast<std::size_t>(sent));
    }
}

void control_server::drop_finished()
{
    std::erase_if(clients_,
                  [](const client &each) { return each.answered && !each.follows && each.reply.empty(); });
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
    drop_finished();
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

int ask_board(const std::string &path, const std::vector<std::string> &words)
{
    const kiv::unique_fd board = connect_to(path);
    if (!board.is_open()) {
        std::fprintf(stderr, "kivboard: no board answers at %s\n", path.c_str());
        return 1;
    }
    std::string request;
    for (const std::string &word : words) {
        request += word + " ";
    }
    request += "\n";
    send(board.get(), request.data(), request.size(), MSG_NOSIGNAL);

    std::string status;
    char block[4096];
    for (ssize_t got = 0;
         (got = recv(board.get(), block, sizeof block, 0)) > 0 || (got < 0 && errno == EINTR);) {
        std::string text(block, got > 0 ? static_cast<std::size_t>(got) : 0);
        if (status.find('\n') == std::string::npos) {
            status += text;
            const std::size_t end = status.find('\n');
            text = end != std::string::npos ? status.substr(end + 1) : "";
            status.resize(std::min(status.size(), end != std::string::npos ? end + 1 : status.size()));
        }
        FILE *const stream = status == "ok\n" ? stdout : stderr;
        std::fputs(status == "ok\n" || text.empty() ? "" : "kivboard: ", stream);
        std::fwrite(text.data(), 1, text.size(), stream);
        std::fflush(stream);
    }
    return status == "ok\n" ? 0 : 1;
}

} // namespace kivboard
