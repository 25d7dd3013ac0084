// The bench side of a running board: requests over a Unix socket, a line of words each, answered with text.
//
// A connection carries any number of requests, answered in their order. An answer is a line "ok N" or "error
// N", and then N bytes of text, whose lines are ended. A line "follow N" is an "ok" after whose text more
// comes, until one side closes; no requests may come behind it. So a program that raises many interrupts
// connects once:
//     > raise 17          < ok 0
//     > raise 99          < error 19, there is no pin 99
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace kivboard
{

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
        std::string requests; // lines to answer, and the beginning of one
        std::string reply;    // what is still to be sent
        bool follows = false;
        bool gone = false; // nothing more will come
    };

    static void receive(client &from);
    static void send(client &to);
    void answer(client &to);

    handler handle_;
    kiv::unique_fd listener_;
    std::string path_;
    std::vector<client> clients_;
};

/// A connection to a board, for commands.
class board_connection
{
public:
    explicit board_connection(const std::string &path);
    [[nodiscard]] bool is_open() const { return fd_.is_open(); }

    /// Sends a request and prints what the board answers. @return The exit status for the command.
    int ask(const std::string &request);

private:
    bool receive();
    void print(std::size_t size, FILE *to); // so much of what comes, or until the board closes

    kiv::unique_fd fd_;
    std::string received_; // what is not yet used of it
};

/// Whether a board answers at this path.
bool is_board_at(const std::string &path);

} // namespace kivboard
