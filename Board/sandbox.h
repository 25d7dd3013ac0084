// The file system that COMMAND sees: everything as it was, and the board's files grafted in. All of it
// happens in a mount namespace of its own, so nothing of the machine is touched and nothing is left behind.
#pragma once

#include <string>
#include <vector>

namespace kivboard
{

/// A file or directory that shows at another place.
struct bind_graft {
    std::string source;
    std::string target;
};

struct sandbox_plan {
    std::vector<bind_graft> nodes;                 // source: a path within the board's own file system
    std::vector<std::string> writable_directories; // empty, and gone with the board
    std::vector<bind_graft> binds;                 // source: a path of the machine
};

/// Enters a new mount namespace (and, for an ordinary user, a user namespace that permits it).
/// @return "" or what is missing.
std::string enter_namespaces();

/// Mounts a FUSE file system on a directory. @param[out] fuse_fd  For the server; the caller closes it.
/// @return "" or what is missing.
std::string mount_fuse(const std::string &directory, int &fuse_fd);

/// In new namespaces: grafts the board. Hands the descriptor of its file system to the server before it looks
/// into the file system, since the server must answer from then on.
/// @return "" or what went wrong.
std::string graft(const sandbox_plan &plan, void (*hand_over)(int fuse_fd, int channel), int channel);

} // namespace kivboard
