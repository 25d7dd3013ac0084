// The file system that COMMAND sees: the machine's, with the board's files mounted in it. The mounts exist in a
// mount namespace of their own, so the machine is not changed and nothing is left behind.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

namespace kivboard
{

/// A file or directory that is shown at another place.
struct bind_graft {
    std::string source;
    std::string target;
};

/// Enters a new mount namespace (and, for an ordinary user, a user namespace that permits it).
/// @return "" or what is missing, and what to do about it.
std::string enter_namespaces();

/// Mounts a FUSE file system on a directory. @param[out] fuse_fd  For the server; the caller closes it.
/// @return "" or what is missing, and what to do about it.
std::string mount_fuse(const std::string &directory, int &fuse_fd);

/// Makes the file system that COMMAND sees. Call the functions in new namespaces and in their order. Each
/// returns "" or what went wrong.
class sandbox
{
public:
    /// Keeps the working directory for enter_working_directory().
    sandbox();

    /// Shows the nodes of the board; a source is a path within its file system. Sends the descriptor of the file
    /// system to the server first, as the server must answer every access.
    /// @param send  Sends the descriptor over the channel, and closes it.
    std::string show_nodes(const std::vector<bind_graft> &nodes, bool (*send)(int fuse_fd, int channel),
                           int channel);

    /// Makes directories that are empty and writable, and that disappear with the board.
    std::string make_writable(const std::vector<std::string> &directories);

    /// Shows files and directories of the machine.
    std::string show_files(const std::vector<bind_graft> &binds);

    /// Enters the working directory again, as its path may lead to another place now.
    [[nodiscard]] std::string enter_working_directory() const;

private:
    std::string make_directory(const std::string &path);
    std::string make_file_at(const std::string &path);
    std::string make_parent(const std::string &path);
    std::string cover(const std::string &directory);
    std::string show(const std::string &source, const std::string &target);
    [[nodiscard]] bool is_ours(const std::string &path) const;

    std::set<dev_t> ours_; // the file systems that cover directories of the machine
    std::string working_directory_;
    std::string problem_; // the reason when there is none
};

} // namespace kivboard
