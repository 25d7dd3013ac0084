// The files of the board, as a FUSE file system: a tree of directories and of files that answer system calls.
#pragma once

#define FUSE_USE_VERSION 314
#include <fuse_lowlevel.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kivboard
{

/// An ioctl as it arrives. The argument is an address in the caller's memory.
struct ioctl_request {
    pid_t caller;
    unsigned command;
    std::uint64_t argument;
    bool caller_is_32bit;
};

/// What a file of the board does. Every system call that a kind of file does not know is refused.
class board_file
{
public:
    virtual ~board_file() = default;

    /// @return The result of the call: not negative, or the negative of an errno value.
    virtual int ioctl(const ioctl_request &request) = 0;
};

class board_fs
{
public:
    board_fs();
    ~board_fs();
    board_fs(const board_fs &) = delete;
    board_fs &operator=(const board_fs &) = delete;

    /// Adds a file, and the directories on the way to it. To be done before serving.
    void add(const std::string &path, std::unique_ptr<board_file> file);

    /// Takes over a descriptor of /dev/fuse whose mount is done. @return Whether that worked.
    bool attach(int fuse_fd);

    /// Answers one request of the kernel; call it when the descriptor is readable.
    /// @return False when the file system is no longer mounted anywhere.
    bool serve_one();

private:
    struct node;
    struct session_deleter {
        void operator()(fuse_session *session) const noexcept { fuse_session_destroy(session); }
    };

    static void on_lookup(fuse_req_t request, fuse_ino_t parent, const char *name);
    static void on_getattr(fuse_req_t request, fuse_ino_t inode, fuse_file_info *info);
    static void on_open(fuse_req_t request, fuse_ino_t inode, fuse_file_info *info);
    static void on_readdir(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset,
                           fuse_file_info *info);
    static void on_read(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset,
                        fuse_file_info *info);
    static void on_write(fuse_req_t request, fuse_ino_t inode, const char *data, std::size_t size,
                         off_t offset, fuse_file_info *info);
    static void on_ioctl(fuse_req_t request, fuse_ino_t inode, unsigned command, void *argument,
                         fuse_file_info *info, unsigned flags, const void *in, std::size_t in_size,
                         std::size_t out_size);
    static node *find(fuse_req_t request, fuse_ino_t inode);

    node &child(node &parent, const std::string &name);

    std::vector<std::unique_ptr<node>> nodes_; // the inode number of a node is its index + 1
    std::unique_ptr<fuse_session, session_deleter> session_;
    fuse_buf buffer_ = {};
};

} // namespace kivboard
