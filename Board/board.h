// A running board: its buses, its journal, its files, and the event loop that serves them all.
//
// One thread does everything: transfers, pokes and the journal need no lock, and what happens first is
// journalled first. A transfer is a copy of some bytes; there is nothing to be gained from a second thread.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "board_file.h"
#include "board_fs.h"
#include "control.h"
#include "gpio_bank.h"
#include "i2c_bus.h"
#include "journal.h"
#include "sandbox.h"

namespace kivboard
{

class running_board
{
public:
    explicit running_board(const board_description &description);

    /// Where the board's files are to be grafted.
    [[nodiscard]] std::vector<bind_graft> grafts() const;

    board_fs &files() { return files_; }
    control_server &control() { return control_; }

    /// Serves until COMMAND, whose process is given, has ended. Terminating signals go on to it.
    /// @param signal_fd  Delivers SIGCHLD, SIGINT, SIGTERM and SIGHUP.
    /// @return COMMAND's status as waitpid() tells it.
    int serve(pid_t command, int fuse_fd, int signal_fd);

private:
    struct request;
    control_reply answer(const std::vector<std::string> &line);
    control_reply peek(const std::vector<std::string> &words);
    control_reply poke(const std::vector<std::string> &words);
    control_reply show_journal(const std::vector<std::string> &words);
    i2c_device *find_device(const std::vector<std::string> &words, std::string &error);
    void tell_followers();

    std::map<unsigned, i2c_bus> buses_;
    journal journal_;
    std::uint64_t followed_ = 1; // the next line for those who follow
    board_fs files_;
    gpio_bank pins_;
    control_server control_;
};

} // namespace kivboard
