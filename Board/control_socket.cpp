#include "control_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kivboard
{
namespace
{

constexpr int most_boards = 1000;
constexpr int lock_tries = 500;
constexpr useconds_t lock_pause_us = 10'000;

bool make_address(const std::string &path, sockaddr_un &address)
{
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return false;
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

std::string user_folder(const std::string &parent)
{
    return parent + "/kivboard-" + std::to_string(geteuid());
}

std::string default_folder()
{
    const char *const runtime = std::getenv("XDG_RUNTIME_DIR");
    return user_folder(runtime != nullptr && *runtime == '/' ? runtime : "/tmp");
}

// Another user may have made the folder, or a link of its name, in order to see or to answer our requests.
bool make_private(const std::string &folder)
{
    mkdir(folder.c_str(), 0700);
    struct stat status = {};
    return lstat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
           (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

std::string folder_of(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// The lock lasts as long as the descriptor. Gives up after a few seconds: in a folder that others can open,
// somebody may hold the lock forever. errno tells why there is none.
kiv::unique_fd lock_folder(const std::string &folder)
{
    kiv::unique_fd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int tries = 0; fd.is_open() && flock(fd.get(), LOCK_EX | LOCK_NB) != 0; ++tries) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || tries == lock_tries) {
            return kiv::unique_fd();
        }
        usleep(lock_pause_us);
    }
    return fd;
}

// errno tells why there is no connection.
kiv::unique_fd connect_to(const std::string &path, int flags)
{
    sockaddr_un address;
    if (!make_address(path, address)) {
        errno = ENAMETOOLONG;
        return kiv::unique_fd();
    }
    kiv::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    const auto *const wanted = reinterpret_cast<const sockaddr *>(&address);
    if (fd.is_open() && TEMP_FAILURE_RETRY(connect(fd.get(), wanted, sizeof address)) != 0) {
        return kiv::unique_fd();
    }
    return fd;
}

// Root may do everything anyway.
bool is_trusted(int connection)
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    return getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == geteuid() || peer.uid == 0);
}

// By the mask, as a chmod() would come too late.
int bind_privately(int fd, const sockaddr_un &address)
{
    const mode_t former = umask(S_IXUSR | S_IRWXG | S_IRWXO);
    const int error = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? 0 : errno;
    umask(former);
    return error;
}

// Removes the socket of a board that was killed, and nothing else: what still listens, what is no stream
// socket and what belongs to another user stays. @return 0 or an errno value.
int remove_stale(const std::string &path)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        return errno;
    }
    if (!S_ISSOCK(status.st_mode)) {
        return EEXIST;
    }
    if (connect_to(path, SOCK_NONBLOCK).is_open() || errno == EAGAIN) {
        return EADDRINUSE;
    }
    if (errno != ECONNREFUSED || status.st_uid != geteuid()) {
        return errno != ECONNREFUSED ? errno : EEXIST;
    }
    return unlink(path.c_str()) == 0 ? 0 : errno;
}

std::string describe(const std::string &path, int error)
{
    return error == 0            ? ""
           : error == EADDRINUSE ? "another board answers at " + path
                                 : "can't listen at " + path + ": " + std::strerror(error);
}

} // namespace

std::string default_socket()
{
    return default_folder() + "/board.sock";
}

kiv::unique_fd connect_to_board(const std::string &path, std::string &problem)
{
    kiv::unique_fd fd = connect_to(path, 0);
    if (!fd.is_open()) {
        problem = "no board answers at " + path + ": " + std::strerror(errno);
    } else if (!is_trusted(fd.get())) {
        problem = "the board at " + path + " belongs to another user";
        fd.reset();
    }
    return fd;
}

control_socket::~control_socket()
{
    if (!fd_.is_open()) {
        return;
    }
    const kiv::unique_fd lock =
        lock_folder(folder_of(path_)); // another board may be taking the path just now
    struct stat status = {};
    if (lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
        unlink(path_.c_str()); // another inode belongs to a board that has taken the path
    }
    if (!new_folder_.empty()) {
        rmdir(new_folder_.c_str());
    }
}

// The folder is locked. @return 0 or an errno value, EADDRINUSE when another board has the path.
int control_socket::listen_at(const std::string &path)
{
    sockaddr_un address;
    if (!make_address(path, address)) {
        return ENAMETOOLONG;
    }
    kiv::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.is_open()) {
        return errno;
    }
    int error = bind_privately(fd.get(), address);
    if (error == EADDRINUSE) {
        error = remove_stale(path);
        error = error == 0 ? bind_privately(fd.get(), address) : error;
    }
    struct stat status = {};
    if (error != 0 || listen(fd.get(), SOMAXCONN) != 0 || lstat(path.c_str(), &status) != 0) {
        return error != 0 ? error : errno;
    }
    fd_ = std::move(fd);
    path_ = path;
    device_ = status.st_dev;
    inode_ = status.st_ino;
    return 0;
}

std::string control_socket::claim(const std::string &path)
{
    const kiv::unique_fd lock = lock_folder(folder_of(path));
    return describe(path, lock.is_open() ? listen_at(path) : errno);
}

// The default folder's board.sock, board-2.sock, board-3.sock ...: the first that is free.
bool control_socket::claim_numbered()
{
    const std::string folder = default_folder();
    const kiv::unique_fd lock = make_private(folder) ? lock_folder(folder) : kiv::unique_fd();
    int error = lock.is_open() ? EADDRINUSE : EACCES;
    for (int number = 1; error == EADDRINUSE && number <= most_boards; ++number) {
        error =
            listen_at(number == 1 ? default_socket() : folder + "/board-" + std::to_string(number) + ".sock");
    }
    return error == 0;
}

std::string control_socket::claim_in_new_folder()
{
    std::string folder = user_folder("/tmp") + "-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        return "can't make a folder for the socket in /tmp: " + std::string(std::strerror(errno));
    }
    new_folder_ = folder;
    return claim(folder + "/board.sock");
}

std::string control_socket::claim_default()
{
    return claim_numbered() ? "" : claim_in_new_folder();
}

kiv::unique_fd control_socket::accept() const
{
    kiv::unique_fd connection(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (connection.is_open() && !is_trusted(connection.get())) {
        connection.reset();
        errno = EACCES;
    }
    return connection;
}

} // namespace kivboard
