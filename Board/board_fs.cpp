#include "board_fs.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <sstream>

namespace kivboard
{
namespace
{

constexpr double cache_seconds = 3600.0; // the tree does not change while it is served

// An open file of text. The text is made at the start of the file only, so that a reader in pieces gets one
// consistent text.
class open_text : public open_file
{
public:
    explicit open_text(device_file &device) : device_(device) {}

    int read(std::size_t offset, std::size_t size, std::string &data) override
    {
        if (offset == 0) {
            text_.clear();
            if (const int result = device_.read(text_); result < 0) {
                return result;
            }
        }
        data = text_.substr(std::min(offset, text_.size()), size);
        return 0;
    }
    int write(std::string_view data) override { return device_.write(data); }

private:
    device_file &device_;
    std::string text_;
};

} // namespace

int open_file::read(std::size_t, std::size_t, std::string &)
{
    return -EOPNOTSUPP;
}

int open_file::write(std::string_view)
{
    return -EOPNOTSUPP;
}

int open_file::ioctl(const ioctl_request &)
{
    return -ENOTTY;
}

int device_file::read(std::string &)
{
    return -EOPNOTSUPP;
}

int device_file::write(std::string_view)
{
    return -EOPNOTSUPP;
}

std::unique_ptr<open_file> device_file::make_open_file()
{
    return std::make_unique<open_text>(*this);
}

void device_file::wake()
{
    for (opening &each : openings_) {
        // Used once: everybody who is woken polls again, which brings a new handle. The kernel ignores a
        // handle of somebody who has stopped waiting.
        if (const auto handle = std::move(each.waiting); handle != nullptr) {
            fuse_lowlevel_notify_poll(handle.get());
        }
    }
}

struct board_fs::node {
    fuse_ino_t inode;
    std::map<std::string, node *, std::less<>> children;
    std::unique_ptr<device_file> file; // null for a directory

    // Every user of the namespace may read and write, as on a board.
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
    nodes_.push_back(std::make_unique<node>(node{FUSE_ROOT_ID, {}, nullptr}));
}

board_fs::~board_fs()
{
    std::free(buffer_.mem); // libfuse has allocated it at the first request
}

board_fs::node &board_fs::child(node &parent, const std::string &name)
{
    node *&entry = parent.children[name];
    if (entry == nullptr) {
        nodes_.push_back(std::make_unique<node>(node{nodes_.size() + 1, {}, nullptr}));
        entry = nodes_.back().get();
    }
    return *entry;
}

void board_fs::add(const std::string &path, std::unique_ptr<device_file> file)
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
    operations.setattr = on_setattr;
    operations.open = on_open;
    operations.release = on_release;
    operations.readdir = on_readdir;
    operations.read = on_read;
    operations.write = on_write;
    operations.poll = on_poll;
    operations.ioctl = on_ioctl;
    char name[] = "kivboard";
    char *arguments[] = {name, nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, arguments);
    session_.reset(fuse_session_new(&args, &operations, sizeof operations, this));
    fuse_opt_free_args(&args); // libfuse has copied them
    const std::string mounted = "/dev/fd/" + std::to_string(fuse_fd);
    return session_ != nullptr && fuse_session_mount(session_.get(), mounted.c_str()) == 0;
}

// An interrupted receive says nothing about the mount.
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

device_file::opening &board_fs::opening_of(const fuse_file_info *info)
{
    return *reinterpret_cast<device_file::opening *>(static_cast<std::uintptr_t>(info->fh));
}

void board_fs::on_lookup(fuse_req_t request, fuse_ino_t parent, const char *name)
{
    const node *const directory = find(request, parent);
    const node *entry = nullptr;
    if (directory != nullptr) {
        const auto found = directory->children.find(name);
        entry = found != directory->children.end() ? found->second : nullptr;
    }
    if (entry == nullptr) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    fuse_entry_param reply = {};
    reply.ino = entry->inode;
    reply.attr = entry->attributes();
    reply.attr_timeout = reply.entry_timeout = cache_seconds;
    fuse_reply_entry(request, &reply);
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

// The shell's ">" truncates a file. A device node accepts that and ignores it.
void board_fs::on_setattr(fuse_req_t request, fuse_ino_t inode, struct stat *, int which,
                          fuse_file_info *info)
{
    if ((which & (FUSE_SET_ATTR_MODE | FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) != 0) {
        fuse_reply_err(request, EPERM);
        return;
    }
    on_getattr(request, inode, info);
}

void board_fs::on_open(fuse_req_t request, fuse_ino_t inode, fuse_file_info *info)
{
    const node *const entry = find(request, inode);
    if (entry == nullptr || entry->file == nullptr) {
        fuse_reply_err(request, entry == nullptr ? ENOENT : EISDIR);
        return;
    }
    device_file &file = *entry->file;
    if (const int result = file.open(); result < 0) {
        fuse_reply_err(request, -result);
        return;
    }
    file.openings_.emplace_back(file);
    info->fh = reinterpret_cast<std::uintptr_t>(&file.openings_.back());
    info->direct_io = 1;
    info->nonseekable = file.is_seekable() ? 0 : 1;
    if (fuse_reply_open(request, info) != 0) { // interrupted: no release will come
        file.openings_.pop_back();
    }
}

void board_fs::on_release(fuse_req_t request, fuse_ino_t, fuse_file_info *info)
{
    const device_file::opening &closed = opening_of(info);
    closed.device->openings_.remove_if([&closed](const auto &each) { return &each == &closed; });
    fuse_reply_err(request, 0);
}

void board_fs::on_readdir(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset,
                          fuse_file_info *)
{
    const node *const directory = find(request, inode);
    if (directory == nullptr || directory->file != nullptr) {
        fuse_reply_err(request, ENOTDIR);
        return;
    }
    std::vector<std::pair<std::string, const node *>> entries = {{".", directory}, {"..", directory}};
    entries.insert(entries.end(), directory->children.begin(), directory->children.end());
    std::vector<char> block(size);
    std::size_t used = 0;
    for (auto at = static_cast<std::size_t>(offset); at < entries.size(); ++at) {
        const struct stat status = entries[at].second->attributes();
        const std::size_t needed =
            fuse_add_direntry(request, block.data() + used, size - used, entries[at].first.c_str(), &status,
                              static_cast<off_t>(at + 1));
        if (needed > size - used) {
            break;
        }
        used += needed;
    }
    fuse_reply_buf(request, block.data(), used);
}

delayed_calls &board_fs::later_of(fuse_req_t request)
{
    return static_cast<board_fs *>(fuse_req_userdata(request))->later_;
}

void board_fs::on_read(fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset, fuse_file_info *info)
{
    open_file &file = *opening_of(info).file;
    std::string data;
    const int result = file.read(static_cast<std::size_t>(offset), size, data);
    later_of(request).at(file.ready_at(), [request, result, data = std::move(data)] {
        if (result < 0) {
            fuse_reply_err(request, -result);
        } else {
            fuse_reply_buf(request, data.data(), data.size());
        }
    });
}

void board_fs::on_write(fuse_req_t request, fuse_ino_t, const char *data, std::size_t size, off_t,
                        fuse_file_info *info)
{
    open_file &file = *opening_of(info).file;
    const int result = file.write({data, size});
    later_of(request).at(file.ready_at(), [request, result] {
        if (result < 0) {
            fuse_reply_err(request, -result);
        } else {
            fuse_reply_write(request, static_cast<std::size_t>(result));
        }
    });
}

// No wake-up is lost, as nothing happens between keeping the handle and the answer: an event is in the answer,
// or it comes later and finds the handle. The kernel gives a handle only when somebody is about to wait.
void board_fs::on_poll(fuse_req_t request, fuse_ino_t, fuse_file_info *info, fuse_pollhandle *handle)
{
    device_file::opening &opened = opening_of(info);
    if (handle != nullptr) {
        opened.waiting.reset(handle);
    }
    fuse_reply_poll(request, opened.device->poll());
}

void board_fs::on_ioctl(fuse_req_t request, fuse_ino_t, unsigned command, void *argument,
                        fuse_file_info *info, unsigned flags, const void *, std::size_t, std::size_t)
{
    if ((flags & FUSE_IOCTL_DIR) != 0) { // we do not see when directories are opened
        fuse_reply_err(request, ENOTTY);
        return;
    }
    open_file &file = *opening_of(info).file;
    const int result =
        file.ioctl({fuse_req_ctx(request)->pid, command, reinterpret_cast<std::uintptr_t>(argument),
                    sizeof(void *) == 4 || (flags & FUSE_IOCTL_COMPAT) != 0});
    later_of(request).at(file.ready_at(), [request, result] {
        if (result < 0) {
            fuse_reply_err(request, -result);
        } else {
            fuse_reply_ioctl(request, result, nullptr, 0);
        }
    });
}

} // namespace kivboard
