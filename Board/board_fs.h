// The files of the board, as a FUSE file system: a tree of directories and of files that answer system calls.
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

/// What a file of the board does. Every system call that a kind of file does not know is refused.
/// Results are those of the call: not negative, or the negative of an errno value.
class board_file
{
public:
    virtual ~board_file() = default;

    /// Whether the file has positions. One that has is text that is made when it is read from the start;
    /// where a write begins does not matter.
    [[nodiscard]] virtual bool is_seekable() const { return false; }

    virtual int open() { return 0; }
    virtual int read(std::string &text);
    virtual int write(std::string_view data);
    virtual int ioctl(const ioctl_request &request);

    /// The events that are there. Like the kernel's, a file that does not know polling is always ready.
    virtual unsigned poll() { return POLLIN | POLLOUT; }

protected:
    /// Has everybody who waits in poll() look again.
    void wake();

private:
    friend class board_fs;

    struct pollhandle_deleter {
        void operator()(fuse_pollhandle *handle) const noexcept { fuse_pollhandle_destroy(handle); }
    };

    // An open file. The kernel lets all who wait on it share the handle that it gave last.
    struct opening {
        board_file *file;
        std::string text; // as it was when last read from the start
        std::unique_ptr<fuse_pollhandle, pollhandle_deleter> waiting;
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
    static board_file::opening &opening_of(const fuse_file_info *info);

    node &child(node &parent, const std::string &name);

    std::vector<std::unique_ptr<node>> nodes_; // the inode number of a node is its index + 1
    std::unique_ptr<fuse_session, session_deleter> session_;
    fuse_buf buffer_ = {};
};

} // namespace kivboard
