// The bench side of a running board: requests over a Unix socket, one line each, answered with text.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace kivboard
{

/// A reply is "ok" or "error" on a line, then the text. After "follow" more text may come.
struct control_reply {
    bool ok = true;
    std::string text;
    bool follow = false; // the connection stays open for what follow_text() gives
};

/// The socket of a running board, served from its event loop.
class control_server
{
public:
    using handler = std::function<control_reply(const std::vector<std::string> &words)>;

    explicit control_server(handler handle) : handle_(std::move(handle)) {}
    ~control_server();
    control_server(const control_server &) = delete;
    control_server &operator=(const control_server &) = delete;

    /// Takes the path, also from a board that is no more. @return "" or what is wrong.
    std::string listen(const std::string &path);

    [[nodiscard]] int fd() const { return listener_.get(); }

    /// Takes the connections that wait. Call it when fd() is readable.
    void accept();

    /// Descriptors of clients with a request on its way or a reply still to take, with what they wait for.
    struct interest {
        int fd;
        short events;
    };
    [[nodiscard]] std::vector<interest> interests() const;

    /// Goes on with a client. Call it when its descriptor is ready.
    void serve(int fd);

    /// Sends text to the clients that follow.
    void follow(const std::string &text);
    [[nodiscard]] bool has_followers() const;

private:
    struct client {
        kiv::unique_fd fd;
        std::string request;
        std::string reply; // what is still to be sent
        bool answered = false;
        bool follows = false;
    };

    void receive(client &from);
    void send(client &to);
    void drop_finished();

    handler handle_;
    kiv::unique_fd listener_;
    std::string path_;
    std::vector<client> clients_;
};

/// Sends a request to a board and prints what it answers. @return The exit status for the command.
int ask_board(const std::string &path, const std::vector<std::string> &words);

/// Whether a board answers at this path.
bool is_board_at(const std::string &path);

} // namespace kivboard
