#include "board_fs.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <sstream>

namespace kivboard
{
namespace
{

constexpr double cache_seconds = 3600.0; // the tree does not change while it is served

}

struct board_fs::node {
    fuse_ino_t inode;
    fuse_ino_t parent;
    std::string name;
    std::vector<node *> children;
    std::unique_ptr<board_file> file; // null for a directory

    [[nodiscard]] struct stat attributes() const
    {
        struct stat status = {};
        status.st_ino = inode;
        status.st_mode = file != nullptr ? S_IFREG | 0666 : S_IFDIR | 0755;
        status.st_nlink = file != nullptr ? 1 : 2;
        status.st_uid = getuid();
        status.st_gid = getgid();
        return status;
    }
};

board_fs::board_fs()
{
    nodes_.push_back(std::make_unique<node>(node{FUSE_ROOT_ID, FUSE_ROOT_ID, "", {}, nullptr}));
}

board_fs::~board_fs()
{
    session_.reset();
    std::free(buffer_.mem); // libfuse allocates it at the first request
}

board_fs::node &board_fs::child(node &parent, const std::string &name)
{
    for (node *const existing : parent.children) {
        if (existing->name == name) {
            return *existing;
        }
    }
    nodes_.push_back(std::make_unique<node>(node{nodes_.size() + 1, parent.inode, name, {}, nullptr}));
    parent.children.push_back(nodes_.back().get());
    return *nodes_.back();
}

void board_fs::add(const std::string &path, std::unique_ptr<board_file> file)
{
    node *at = nodes_.front().get();
    std::istringstream names(path);
    for (std::string name; std::getline(names, name, '/');) {
        at = &child(*at, name);
    }
    at->file = std::move(file);
}

bool board_fs::attach(int fuse_fd)
{
    fuse_lowlevel_ops operations = {};
    operations.lookup = on_lookup;
    operations.getattr = on_getattr;
    operations.open = on_open;
    operations.readdir = on_readdir;
    operations.read = on_read;
    operations.write = on_write;
    operations.ioctl = on_ioctl;
    char name[] = "kivboard";
    char *arguments[] = {name, nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, arguments);
    session_.reset(fuse_session_new(&args, &operations, sizeof operations, this));
    fuse_opt_free_args(&args); // parsing made a copy of them
    const std::string mounted = "/dev/fd/" + std::to_string(fuse_fd);
    return session_ != nullptr && fuse_session_mount(session_.get(), mounted.c_str()) == 0;
}

bool board_fs::serve_one()
{
    const int received = fuse_session_receive_buf(session_.get(), &buffer_);
    if (received > 0) {
        fuse_session_process_buf(session_.get(), &buffer_);
    }
    return received > 0 || received == -EINTR || received == -EAGAIN;
}

board_fs::node *board_fs::find(fuse_req_t request, fuse_ino_t inode)
{
    auto *const self = static_cast<board_fs *>(fuse_req_userdata(request));
    return inode >= 1 && inode <= self->nodes_.size()
               ? self->nodes_[static_cast<std::size_t>(inode - 1)].get()
               : nullptr;
}

void board_fs::on_lookup(fuse_req_t request, fuse_ino_t parent, const char *name)
{
    const node *const directory = find(request, parent);
    if (directory != nullptr) {
        for (const node *const entry : directory->children) {
            if (entry->name == name) {
                fuse_entry_param reply = {};
                reply.ino = entry->inode;
                reply.attr = entry->attributes();
                reply.attr_timeout = reply.entry_timeout = cache_seconds;
                fuse_reply_entry(request, &reply);
                return;
            }
        }
    }
    fuse_reply_err(request, ENOENT);
}

void board_fs::on_getattr(fuse_req_t request, fuse_ino_t inode, fuse_file_info *)
{
    const node *const entry = find(request, inode);
    if (entry == nullptr) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    const struct stat status = entry->attributes();
    fuse_reply_attr(request, &status, cache_seconds);
}

void board_fs::on_open(fuse_req_t request, fuse_ino_t inode, fuse_file_info *info)
{
    const node *const entry = find(request, inode);
    if (entry == nullptr || entry->file == nullptr) {
        fuse_reply_err(request, entry == nullptr ? ENOENT : EISDIR);
        return;
    }
    info->direct_io = 1;
    info->nonseekable = 1;
    fuse_reply_open(request, info);
}

void board_fs::on_readdir(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset,
                          fuse_file_info *)
{
    const node *const directory = find(request, inode);
    if (directory == nullptr || directory->file != nullptr) {
        fuse_reply_err(request, ENOTDIR);
        return;
    }
    std::vector<char> block(size);
    std::size_t used = 0;
    for (auto at = static_cast<std::size_t>(offset); at < directory->children.size() + 2; ++at) {
        const node *const entry = at < 2 ? directory : directory->children[at - 2];
        const struct stat status = entry->attributes();
        const char *const name = at == 0 ? "." : at == 1 ? ".." : entry->name.c_str();
        const std::size_t needed = fuse_add_direntry(request, block.data() + used, size - used, name, &status,
                                                     static_cast<off_t>(at + 1));
        if (needed > size - used) {
            break;
        }
        used += needed;
    }
    fuse_reply_buf(request, block.data(), used);
}

void board_fs::on_read(fuse_req_t request, fuse_ino_t, std::size_t, off_t, fuse_file_info *)
{
    fuse_reply_err(request, EOPNOTSUPP);
}

void board_fs::on_write(fuse_req_t request, fuse_ino_t, const char *, std::size_t, off_t, fuse_file_info *)
{
    fuse_reply_err(request, EOPNOTSUPP);
}

void board_fs::on_ioctl(fuse_req_t request, fuse_ino_t inode, unsigned command, void *argument,
                        fuse_file_info *, unsigned flags, const void *, std::size_t, std::size_t)
{
    node *const entry = find(request, inode);
    if (entry == nullptr || entry->file == nullptr) {
        fuse_reply_err(request, ENOTTY);
        return;
    }
    const int result =
        entry->file->ioctl({fuse_req_ctx(request)->pid, command, reinterpret_cast<std::uintptr_t>(argument),
                            sizeof(void *) == 4 || (flags & FUSE_IOCTL_COMPAT) != 0});
    if (result < 0) {
        fuse_reply_err(request, -result);
    } else {
        fuse_reply_ioctl(request, result, nullptr, 0);
    }
}

} // namespace kivboard
