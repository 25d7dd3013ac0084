#include "board_connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <sstream>

#include "control_socket.h"

namespace kivboard
{

std::string printable(const std::string &text)
{
    std::string shown;
    for (const char character : text) {
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned char>(character));
        shown +=
            (character >= ' ' && character <= '~') || character == '\n' ? std::string(1, character) : escape;
    }
    return shown;
}

board_connection::board_connection(const std::string &path) : fd_(connect_to_board(path, problem_)) {}

bool board_connection::send(const std::string &line) const
{
    for (std::size_t sent = 0; sent < line.size();) {
        const ssize_t more =
            TEMP_FAILURE_RETRY(::send(fd_.get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL));
        if (more < 0) {
            return false;
        }
        sent += static_cast<std::size_t>(more);
    }
    return true;
}

bool board_connection::receive()
{
    char block[4096];
    const ssize_t got = TEMP_FAILURE_RETRY(recv(fd_.get(), block, sizeof block, 0));
    received_.append(block, got > 0 ? static_cast<std::size_t>(got) : 0);
    return got > 0;
}

bool board_connection::receive_line(std::string &line)
{
    std::size_t end = 0;
    while ((end = received_.find('\n')) == std::string::npos) {
        if (!receive()) {
            return false;
        }
    }
    line = received_.substr(0, end);
    received_.erase(0, end + 1);
    return true;
}

// Prints each part as it arrives: the text of a follower has no end.
void board_connection::print(std::size_t size, FILE *to)
{
    do {
        const std::size_t ready = std::min(size, received_.size());
        const std::string text = printable(received_.substr(0, ready));
        if (std::fwrite(text.data(), 1, text.size(), to) != text.size() || std::fflush(to) != 0) {
            fd_.reset(); // nothing more can be printed
            return;
        }
        received_.erase(0, ready);
        size -= ready;
    } while (size > 0 && receive());
}

bool board_connection::begin(const std::string &request, answer_head &head)
{
    std::string line;
    if (!send(request + "\n") || !receive_line(line)) {
        fd_.reset();
        return false;
    }
    std::istringstream(line) >> head.status >> head.size;
    return true;
}

std::optional<board_answer> board_connection::exchange(const std::string &request)
{
    answer_head head;
    bool arrives = begin(request, head);
    while (arrives && received_.size() < head.size) {
        arrives = receive();
    }
    if (!arrives) {
        return std::nullopt;
    }
    board_answer answer = {head.status != "error", received_.substr(0, head.size)};
    received_.erase(0, head.size);
    return answer;
}

int board_connection::ask(const std::string &request)
{
    answer_head head;
    if (!begin(request, head)) {
        std::fputs("kivboard: the board has gone\n", stderr);
        return 1;
    }
    const bool failed = head.status == "error";
    std::fputs(failed ? "kivboard: " : "", stderr);
    print(head.status == "follow" ? std::numeric_limits<std::size_t>::max() : head.size,
          failed ? stderr : stdout);
    return failed ? 1 : 0;
}

} // namespace kivboard
