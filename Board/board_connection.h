// The client of a board's control socket, for the commands of the bench.
#pragma once

#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>

#include "common/unique_fd.h"

namespace kivboard
{

/// An answer repeats words that somebody has sent. @return The text without bytes that control a terminal.
std::string printable(const std::string &text);

struct board_answer {
    bool ok;
    std::string text; // lines, each ended
};

class board_connection
{
public:
    explicit board_connection(const std::string &path);
    [[nodiscard]] bool is_open() const { return fd_.is_open(); }
    /// The reason when the board cannot be reached.
    [[nodiscard]] const std::string &problem() const { return problem_; }

    /// Sends a request and prints the answer. @return The exit status for the command.
    int ask(const std::string &request);

    /// Sends a request and receives the whole answer. @return Nothing when the board has gone.
    std::optional<board_answer> exchange(const std::string &request);

    /// Becomes readable between two requests when the board has gone.
    [[nodiscard]] int fd() const { return fd_.get(); }

private:
    // The first line of an answer.
    struct answer_head {
        std::string status;
        std::size_t size = 0;
    };

    bool begin(const std::string &request, answer_head &head);
    [[nodiscard]] bool send(const std::string &line) const;
    bool receive();
    bool receive_line(std::string &line);
    void print(std::size_t size, FILE *to); // prints so many bytes, or all until the board closes

    std::string problem_;
    kiv::unique_fd fd_;
    std::string received_; // not yet used
};

} // namespace kivboard
