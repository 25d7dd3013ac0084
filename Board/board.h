// A running board: its parts, its files, its control socket, and the event loop that serves them all.
//
// One thread does everything. Transfers, requests and the journal need no lock, and the journal has the true
// order. A second thread would gain nothing, as a transfer copies some bytes.
#pragma once

#include <string>
#include <vector>

#include "board_fs.h"
#include "control_server.h"
#include "description.h"
#include "gpio_bank.h"
#include "i2c_bank.h"
#include "journal.h"
#include "sandbox.h"
#include "waits.h"

namespace kivboard
{

class running_board
{
public:
    explicit running_board(const board_description &description);

    /// "", or the reason for which the machine cannot have this board.
    [[nodiscard]] const std::string &problem() const { return buses_.problem(); }

    /// The places at which COMMAND sees the board's files.
    [[nodiscard]] std::vector<bind_graft> grafts() const;

    board_fs &files() { return files_; }
    control_server &control() { return control_; }

    /// Serves until COMMAND has ended. Terminating signals are forwarded to it.
    /// @param command    The process of COMMAND.
    /// @param signal_fd  Delivers SIGCHLD, SIGINT, SIGTERM and SIGHUP.
    /// @return COMMAND's status as waitpid() tells it.
    int serve(pid_t command, int fuse_fd, int signal_fd);

private:
    control_reply answer(const std::vector<std::string> &words, control_session &session);
    control_reply answer(const journal_request &asked);
    void wait_and_serve(int signal_fd, int fuse_fd, bool &signalled);
    void tell_followers();

    journal journal_;
    std::uint64_t followed_ = 1; // the next line for the clients that follow
    bool is_mounted_ = true;
    board_fs files_;
    i2c_bank buses_;
    gpio_bank pins_;
    waits waits_;
    control_server control_;
};

} // namespace kivboard
