// The board's FUSE file system: a tree of directories, and of files that answer system calls.
#pragma once

#define FUSE_USE_VERSION 314
#include <fuse_lowlevel.h>
#include <poll.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/owner.h"
#include "delayed_calls.h"

namespace kivboard
{

/// An ioctl as it arrives. The argument is an address in the caller's memory.
struct ioctl_request {
    pid_t caller;
    unsigned command;
    std::uint64_t argument;
    bool caller_is_32bit;
};

class board_fs;

/// An open file. A derived class answers the system calls that it supports; the others fail.
/// Each function returns the result of the call: not negative, or the negative of an errno value.
class open_file
{
public:
    virtual ~open_file() = default;

    /// @param[out] data  The bytes, at most as many as size.
    virtual int read(std::size_t offset, std::size_t size, std::string &data);
    virtual int write(std::string_view data);
    virtual int ioctl(const ioctl_request &request);

    /// The time before which the caller gets no answer to the last call.
    [[nodiscard]] virtual board_clock::time_point ready_at() const { return {}; }
};

/// A file of the board. A derived class answers the system calls that it supports; the others fail.
/// Each function returns the result of the call: not negative, or the negative of an errno value.
class device_file
{
public:
    virtual ~device_file() = default;

    /// True for a file with positions. It is a text, which is made when it is read from the start.
    /// The position of a write is ignored.
    [[nodiscard]] virtual bool is_seekable() const { return false; }

    virtual int open() { return 0; }
    virtual int read(std::string &text);
    virtual int write(std::string_view data);

    /// The state of one open file. A file of text needs no class of its own for it.
    virtual std::unique_ptr<open_file> make_open_file();

    /// The events of poll(). As in the kernel, a file without support for polling is always ready.
    virtual unsigned poll() { return POLLIN | POLLOUT; }

protected:
    /// Makes everybody who waits in poll() ask again.
    void wake();

private:
    friend class board_fs;

    // An open file. Everybody who waits on it shares the handle that the kernel gave last.
    struct opening {
        explicit opening(device_file &opened) : device(&opened), file(opened.make_open_file()) {}

        device_file *device;
        std::unique_ptr<open_file> file;
        kiv::owner<fuse_pollhandle, fuse_pollhandle_destroy> waiting;
    };

    std::list<opening> openings_;
};

class board_fs
{
public:
    board_fs();
    ~board_fs();
    board_fs(const board_fs &) = delete;
    board_fs &operator=(const board_fs &) = delete;

    /// Adds a file and the directories above it. Not while serving.
    void add(const std::string &path, std::unique_ptr<device_file> file);

    /// Serves a mounted file system from now on. @param fuse_fd  Its descriptor of /dev/fuse.
    /// @return False when libfuse refuses it.
    bool attach(int fuse_fd);

    /// Answers one request of the kernel. Call it when the descriptor is readable.
    /// @return False when the file system is no longer mounted anywhere.
    bool serve_one();

    /// The answers that are given later. Serve its descriptor, too.
    delayed_calls &later() { return later_; }

private:
    struct node;

    static void on_lookup(fuse_req_t request, fuse_ino_t parent, const char *name);
    static void on_getattr(fuse_req_t request, fuse_ino_t inode, fuse_file_info *info);
    static void on_setattr(fuse_req_t request, fuse_ino_t inode, struct stat *wanted, int which,
                           fuse_file_info *info);
    static void on_open(fuse_req_t request, fuse_ino_t inode, fuse_file_info *info);
    static void on_release(fuse_req_t request, fuse_ino_t inode, fuse_file_info *info);
    static void on_readdir(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset,
                           fuse_file_info *info);
    static void on_read(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset,
                        fuse_file_info *info);
    static void on_write(fuse_req_t request, fuse_ino_t inode, const char *data, std::size_t size,
                         off_t offset, fuse_file_info *info);
    static void on_poll(fuse_req_t request, fuse_ino_t inode, fuse_file_info *info, fuse_pollhandle *handle);
    static void on_ioctl(fuse_req_t request, fuse_ino_t inode, unsigned command, void *argument,
                         fuse_file_info *info, unsigned flags, const void *in, std::size_t in_size,
                         std::size_t out_size);
    static node *find(fuse_req_t request, fuse_ino_t inode);
    static device_file::opening &opening_of(const fuse_file_info *info);
    static delayed_calls &later_of(fuse_req_t request);

    node &child(node &parent, const std::string &name);

    delayed_calls later_;
    std::vector<std::unique_ptr<node>> nodes_; // the inode number of a node is its index + 1
    kiv::owner<fuse_session, fuse_session_destroy> session_;
    fuse_buf buffer_ = {};
};

} // namespace kivboard
