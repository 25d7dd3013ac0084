// The server of a board's control socket. A request is a line of words, and its answer is text.
//
// A connection carries any number of requests, answered in their order. An answer is a line "ok N" or "error
// N", followed by N bytes of text: complete lines. "follow N" is an "ok" after whose text more text comes,
// until one side closes; the client must not send requests after it. A program that raises many interrupts
// connects once:
//     > raise 17          < ok 0
//     > raise 99          < error 19, there is no pin 99
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "control_socket.h"
#include "requests.h"

namespace kivboard
{

/// A client's place in the journal: a wait for a transfer looks at the entries from here on. 0 before the first request.
struct control_session {
    std::uint64_t since = 0;
};

/// The socket of a running board, served from its event loop.
class control_server
{
public:
    /// The session exists until its client has left.
    using handler =
        std::function<control_reply(const std::vector<std::string> &words, control_session &session)>;

    explicit control_server(handler handle) : handle_(std::move(handle)) {}
    control_server(const control_server &) = delete;
    control_server &operator=(const control_server &) = delete;

    /// The caller claims its path before serving.
    control_socket &socket() { return socket_; }

    /// Becomes readable when a client connects; -1 while the process has no descriptor for another client.
    [[nodiscard]] int fd() const { return is_pausing() ? -1 : socket_.fd(); }

    /// The longest that poll() may wait: accepting is tried again after a pause, and replies have deadlines.
    [[nodiscard]] int poll_timeout_ms() const;

    /// Accepts a new client. Call it when fd() is readable.
    void accept();

    /// The clients' descriptors, each with the events that the server waits for.
    struct interest {
        int fd;
        short events;
    };
    [[nodiscard]] std::vector<interest> interests() const;

    /// Receives requests from a client or sends answers to it. Call it when its descriptor is ready.
    void serve(int fd);

    /// Finds out which of the outstanding replies are known now. Call it after each event on the board.
    void settle();

    /// Sends new entries of the journal to the clients that follow it in this format.
    void follow(journal_format format, const std::string &text);
    [[nodiscard]] bool has_followers(journal_format format) const;

private:
    struct client {
        kiv::unique_fd fd;
        std::string requests; // lines not yet answered; the last one may be incomplete
        std::string reply;    // not yet sent
        std::optional<journal_format> follows;
        bool gone = false;          // to be removed
        control_reply awaited = {}; // with a function while a reply is outstanding
        control_session session = {};
    };

    [[nodiscard]] bool is_pausing() const;
    static void receive(client &from);
    static void send(client &to);
    static void queue(client &to, const control_reply &reply);
    static bool is_waiting(const client &of) { return of.awaited.later != nullptr; }
    void answer(client &to);

    handler handle_;
    control_socket socket_;
    std::chrono::steady_clock::time_point pause_end_; // until then no client is accepted
    std::list<client> clients_;                       // outstanding replies refer to the sessions
};

} // namespace kivboard
