#include "sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "common/unique_fd.h"

namespace kivboard
{
namespace
{

namespace fs = std::filesystem;

// The board's file system is mounted at the staging directory until its nodes are shown at their places.
constexpr char device_directory[] = "/dev";
constexpr char staging_directory[] = "/dev/.kivboard";

std::string reason(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

bool write_text(const std::string &path, const std::string &text)
{
    const kiv::unique_fd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// In the new user namespace only the caller exists, with the same numbers as outside.
bool map_identity(uid_t uid, gid_t gid)
{
    const std::string user = std::to_string(uid);
    const std::string group = std::to_string(gid);
    return write_text("/proc/self/setgroups", "deny") &&
           write_text("/proc/self/uid_map", user + " " + user + " 1") &&
           write_text("/proc/self/gid_map", group + " " + group + " 1");
}

bool bind(const std::string &source, const std::string &target)
{
    return mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

bool mount_tmpfs(const std::string &directory)
{
    return mount("kivboard", directory.c_str(), "tmpfs", MS_NOSUID, "mode=0755") == 0;
}

// O_EXCL: a link that leads nowhere must not make a file on the machine.
bool make_file(const std::string &path)
{
    return kiv::unique_fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644)).is_open();
}

// @param[out] type  As in st_mode, links followed; 0 when nothing is there. @return "" or what went wrong.
std::string find_type(const std::string &path, mode_t &type)
{
    struct stat status = {};
    const bool found = stat(path.c_str(), &status) == 0;
    type = found ? status.st_mode & S_IFMT : 0;
    return found || errno == ENOENT ? "" : reason("can't look at " + path);
}

std::string list_directory(const std::string &path, std::vector<std::string> &names)
{
    std::error_code error;
    for (fs::directory_iterator entry(path, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        names.push_back(entry->path().filename());
    }
    return error ? error.message() : "";
}

std::string copy_link(const std::string &source, const std::string &target)
{
    std::error_code error;
    const fs::path content = fs::read_symlink(source, error);
    if (!error) {
        fs::create_symlink(content, target, error);
    }
    return error ? "can't show " + target + " again: " + error.message() : "";
}

// Shows one entry of the original directory again, in the file system that covers it.
std::string mirror(const std::string &original, const std::string &directory, const std::string &name)
{
    const std::string source = original + "/" + name;
    const std::string target = directory + "/" + name;
    struct stat status = {};
    if (lstat(source.c_str(), &status) != 0) {
        return ""; // it was removed meanwhile
    }
    if (S_ISLNK(status.st_mode)) {
        return copy_link(source, target);
    }
    const bool made = S_ISDIR(status.st_mode) ? mkdir(target.c_str(), 0755) == 0 : make_file(target);
    return made && bind(source, target) ? "" : reason("can't show " + target + " again");
}

constexpr char container_advice[] =
    "; a container is started with --cap-add SYS_ADMIN --security-opt apparmor=unconfined --security-opt "
    "seccomp=unconfined";

// The settings by which a system denies namespaces to ordinary users.
constexpr struct {
    const char *file;
    char forbidding;
    const char *remedy;
} namespace_settings[] = {
    {"/proc/sys/kernel/unprivileged_userns_clone", '0', "kernel.unprivileged_userns_clone=1"},
    {"/proc/sys/kernel/apparmor_restrict_unprivileged_userns", '1',
     "kernel.apparmor_restrict_unprivileged_userns=0"},
    {"/proc/sys/user/max_user_namespaces", '0', "user.max_user_namespaces=10000"},
};

std::string namespace_problem(const std::string &what)
{
    const std::string problem = reason(what);
    for (const auto &[file, forbidding, remedy] : namespace_settings) {
        if (char value = 0; std::ifstream(file).get(value) && value == forbidding && geteuid() != 0) {
            return problem + "; this system restricts them: sudo sysctl " + remedy;
        }
    }
    return problem + container_advice;
}

} // namespace

sandbox::sandbox()
{
    std::error_code error;
    working_directory_ = fs::current_path(error);
    problem_ = error ? "can't tell the working directory: " + error.message() : "";
}

bool sandbox::is_ours(const std::string &path) const
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && ours_.contains(status.st_dev);
}

// Covers a directory of the machine with a small file system, which shows the same entries and can take more.
std::string sandbox::cover(const std::string &directory)
{
    const kiv::unique_fd original(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!original.is_open()) {
        return reason("can't cover " + directory);
    }
    const std::string original_path = "/proc/self/fd/" + std::to_string(original.get());
    std::vector<std::string> names;
    if (const std::string problem = list_directory(original_path, names); !problem.empty()) {
        return "can't cover " + directory + ": " + problem;
    }
    struct stat status = {};
    if (!mount_tmpfs(directory) || stat(directory.c_str(), &status) != 0) {
        return reason("can't cover " + directory);
    }
    ours_.insert(status.st_dev);
    for (const std::string &name : names) {
        if (std::string problem = mirror(original_path, directory, name); !problem.empty()) {
            return problem;
        }
    }
    return "";
}

// Makes the directory that holds a path, one to which entries can be added.
std::string sandbox::make_parent(const std::string &path)
{
    const std::string parent = fs::path(path).parent_path();
    if (parent == "/") { // a process keeps its root directory, so it would not see what covers it
        return path + " is missing, and only the machine's administrator can make it";
    }
    const std::string problem = make_directory(parent);
    return problem.empty() && !is_ours(parent) ? cover(parent) : problem;
}

std::string sandbox::make_directory(const std::string &path)
{
    mode_t type = 0;
    std::string problem = find_type(path, type);
    if (!problem.empty() || type == S_IFDIR) {
        return problem;
    }
    problem = type == 0 ? make_parent(path) : "";
    return !problem.empty() || mkdir(path.c_str(), 0755) == 0 ? problem : reason("can't make " + path);
}

std::string sandbox::make_file_at(const std::string &path)
{
    mode_t type = 0;
    std::string problem = find_type(path, type);
    if (!problem.empty() || type != 0) {
        return problem;
    }
    problem = make_parent(path);
    return !problem.empty() || make_file(path) ? problem : reason("can't make " + path);
}

// A mount needs a target of the same kind as its source.
std::string sandbox::show(const std::string &source, const std::string &target)
{
    mode_t type = 0;
    std::string problem = find_type(source, type);
    if (problem.empty()) {
        problem = type == S_IFDIR ? make_directory(target) : make_file_at(target);
    }
    return !problem.empty() || bind(source, target) ? problem
                                                    : reason("can't show " + source + " at " + target);
}

std::string sandbox::show_nodes(const std::vector<bind_graft> &nodes, bool (*send)(int fuse_fd, int channel),
                                int channel)
{
    std::string problem = cover(device_directory);
    if (problem.empty()) {
        problem = make_directory(staging_directory);
    }
    int fuse_fd = -1;
    if (problem.empty()) {
        problem = mount_fuse(staging_directory, fuse_fd);
    }
    if (problem.empty() && !send(fuse_fd, channel)) {
        problem = reason("can't reach the board");
    }
    for (std::size_t i = 0; i < nodes.size() && problem.empty(); ++i) {
        problem = show(std::string(staging_directory) + "/" + nodes[i].source, nodes[i].target);
    }
    umount2(staging_directory, MNT_DETACH); // the shown nodes stay mounted
    rmdir(staging_directory);
    return problem;
}

std::string sandbox::make_writable(const std::vector<std::string> &directories)
{
    for (const std::string &directory : directories) {
        std::string problem = make_directory(directory);
        if (problem.empty() && !mount_tmpfs(directory)) {
            problem = reason("can't make " + directory + " writable");
        }
        if (!problem.empty()) {
            return problem;
        }
    }
    return "";
}

std::string sandbox::show_files(const std::vector<bind_graft> &binds)
{
    for (const auto &[source, target] : binds) {
        if (std::string problem = show(source, target); !problem.empty()) {
            return problem;
        }
    }
    return "";
}

std::string sandbox::enter_working_directory() const
{
    return !problem_.empty() || chdir(working_directory_.c_str()) == 0
               ? problem_
               : reason("can't return to " + working_directory_);
}

std::string enter_namespaces()
{
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (uid != 0 && unshare(CLONE_NEWUSER) != 0) {
        return namespace_problem("needs user namespaces or root");
    }
    if (uid != 0 && !map_identity(uid, gid)) {
        return namespace_problem("needs user namespaces (can't map the user) or root");
    }
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return namespace_problem("needs mount namespaces");
    }
    return "";
}

std::string mount_fuse(const std::string &directory, int &fuse_fd)
{
    kiv::unique_fd device(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!device.is_open()) {
        const bool forbidden = errno == EACCES;
        return reason("needs an accessible /dev/fuse") +
               (forbidden ? "; sudo chmod 666 /dev/fuse, or run it as root"
                          : "; sudo modprobe fuse, or start the container with --device /dev/fuse");
    }
    const std::string options = "fd=" + std::to_string(device.get()) +
                                ",rootmode=40000,user_id=" + std::to_string(geteuid()) +
                                ",group_id=" + std::to_string(getegid()) + ",allow_other";
    if (mount("kivboard", directory.c_str(), "fuse.kivboard", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
        return reason("needs FUSE mounts in namespaces");
    }
    fuse_fd = device.release();
    return "";
}

} // namespace kivboard
