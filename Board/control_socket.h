// The Unix socket by which the commands of the bench reach a board. Its path belongs to exactly one board.
#pragma once

#include <sys/types.h>

#include <string>

#include "common/unique_fd.h"

namespace kivboard
{

/// The path that a command asks unless it is told another. It is in a folder that only this user can enter.
std::string default_socket();

/// Connects to the board at a path. Refuses a board of another user, root's excepted.
/// @param[out] problem  The reason when there is no connection.
kiv::unique_fd connect_to_board(const std::string &path, std::string &problem);

/// The listening end. Boards that start at the same time do so one after the other, under a lock of the folder.
class control_socket
{
public:
    control_socket() = default;
    ~control_socket();
    control_socket(const control_socket &) = delete;
    control_socket &operator=(const control_socket &) = delete;

    /// Listens at a path, also at that of a board that was killed. @return "" or what is wrong.
    std::string claim(const std::string &path);

    /// Listens at the default path. Where that is taken or cannot be used, at one like it.
    std::string claim_default();

    [[nodiscard]] int fd() const { return fd_.get(); }
    [[nodiscard]] const std::string &path() const { return path_; }

    /// Accepts a connection. One of another user, root excepted, is closed at once: nothing is open then, and
    /// errno is EACCES.
    [[nodiscard]] kiv::unique_fd accept() const;

private:
    int listen_at(const std::string &path);
    bool claim_numbered();
    std::string claim_in_new_folder();

    kiv::unique_fd fd_;
    std::string path_;
    std::string new_folder_; // removed at the end
    dev_t device_ = 0;       // with inode_: the file that this process made at the path
    ino_t inode_ = 0;
};

} // namespace kivboard
