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
#include <memory>
#include <set>

#include "common/unique_fd.h"

namespace kivboard
{
namespace
{

namespace fs = std::filesystem;

// Where the board's file system is mounted while its nodes are grafted.
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

// Keeps the caller's own identity, and nobody else's, in the new user namespace.
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

bool make_file(const std::string &path)
{
    return kiv::unique_fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644)).is_open();
}

// Makes places to graft to. A directory of the machine in which one is missing is covered by a small file
// system of our own, in which everything that was there shows again.
class ground
{
public:
    /// Makes a directory, and the ones above it. @return "" or what went wrong.
    std::string make_directory(const std::string &path);

    /// The same for an empty file.
    std::string make_file_at(const std::string &path);

    std::string cover(const std::string &directory);

private:
    [[nodiscard]] bool is_ours(const std::string &path) const;
    static std::string mirror(const std::string &original, const std::string &directory,
                              const std::string &name);

    std::set<dev_t> ours_; // the file systems that cover directories
};

bool ground::is_ours(const std::string &path) const
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && ours_.contains(status.st_dev);
}

// Shows one entry of the original directory again, in the file system that covers it.
std::string ground::mirror(const std::string &original, const std::string &directory, const std::string &name)
{
    const std::string source = original + "/" + name;
    const std::string target = directory + "/" + name;
    struct stat status = {};
    if (lstat(source.c_str(), &status) != 0) {
        return ""; // it has gone meanwhile
    }
    std::error_code error;
    if (S_ISLNK(status.st_mode)) {
        fs::create_symlink(fs::read_symlink(source, error), target, error);
        return error ? target + ": " + error.message() : "";
    }
    const bool made = S_ISDIR(status.st_mode) ? mkdir(target.c_str(), 0755) == 0 : make_file(target);
    return made && bind(source, target) ? "" : reason("can't show " + target + " again");
}

std::string ground::cover(const std::string &directory)
{
    const kiv::unique_fd original(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::string original_path = "/proc/self/fd/" + std::to_string(original.get());
    std::vector<std::string> names;
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(original_path, error)) {
        names.push_back(entry.path().filename());
    }
    if (error || !original.is_open() || !mount_tmpfs(directory)) {
        return reason("can't cover " + directory);
    }
    struct stat status = {};
    if (stat(directory.c_str(), &status) == 0) {
        ours_.insert(status.st_dev);
    }
    for (const std::string &name : names) {
        if (std::string problem = mirror(original_path, directory, name); !problem.empty()) {
            return problem;
        }
    }
    return "";
}

std::string ground::make_directory(const std::string &path)
{
    if (fs::is_directory(path)) {
        return "";
    }
    const std::string parent = fs::path(path).parent_path();
    if (parent == "/") { // processes keep their root, so covering it would not show them anything
        return path + " is missing, and only the machine's administrator can make it";
    }
    if (std::string problem = make_directory(parent); !problem.empty()) {
        return problem;
    }
    if (!is_ours(parent)) {
        if (std::string problem = cover(parent); !problem.empty()) {
            return problem;
        }
    }
    return mkdir(path.c_str(), 0755) == 0 ? "" : reason("can't make " + path);
}

std::string ground::make_file_at(const std::string &path)
{
    if (fs::exists(path)) {
        return "";
    }
    const std::string parent = fs::path(path).parent_path();
    std::string problem = make_directory(parent);
    if (problem.empty() && !is_ours(parent)) {
        problem = cover(parent);
    }
    if (!problem.empty()) {
        return problem;
    }
    return make_file(path) ? "" : reason("can't make " + path);
}

std::string graft_bind(ground &place, const std::string &source, const std::string &target)
{
    std::string problem =
        fs::is_directory(source) ? place.make_directory(target) : place.make_file_at(target);
    if (problem.empty() && !bind(source, target)) {
        problem = reason("can't graft " + source + " to " + target);
    }
    return problem;
}

std::string graft_writable(ground &place, const std::string &directory)
{
    std::string problem = place.make_directory(directory);
    if (problem.empty() && !mount_tmpfs(directory)) {
        problem = reason("can't make " + directory + " writable");
    }
    return problem;
}

} // namespace

std::string enter_namespaces()
{
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (uid != 0 && unshare(CLONE_NEWUSER) != 0) {
        return reason("needs user namespaces or root");
    }
    if (uid != 0 && !map_identity(uid, gid)) {
        return reason("needs user namespaces (can't map the user) or root");
    }
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return reason("needs mount namespaces");
    }
    return "";
}

std::string mount_fuse(const std::string &directory, int &fuse_fd)
{
    kiv::unique_fd device(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!device.is_open()) {
        return reason("needs an accessible /dev/fuse");
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

std::string graft(const sandbox_plan &plan, void (*hand_over)(int fuse_fd, int channel), int channel)
{
    const std::string working_directory = fs::current_path();
    ground place;
    std::string problem = place.cover(device_directory);
    if (problem.empty()) {
        problem = place.make_directory(staging_directory);
    }
    int fuse_fd = -1;
    if (problem.empty()) {
        problem = mount_fuse(staging_directory, fuse_fd);
    }
    if (!problem.empty()) {
        return problem;
    }
    hand_over(fuse_fd, channel);
    for (std::size_t i = 0; i < plan.nodes.size() && problem.empty(); ++i) {
        problem = graft_bind(place, std::string(staging_directory) + "/" + plan.nodes[i].source,
                             plan.nodes[i].target);
    }
    umount2(staging_directory, MNT_DETACH); // what is grafted stays
    rmdir(staging_directory);
    for (std::size_t i = 0; i < plan.writable_directories.size() && problem.empty(); ++i) {
        problem = graft_writable(place, plan.writable_directories[i]);
    }
    for (std::size_t i = 0; i < plan.binds.size() && problem.empty(); ++i) {
        problem = graft_bind(place, plan.binds[i].source, plan.binds[i].target);
    }
    // The path now leads to what covers the old place.
    if (problem.empty() && chdir(working_directory.c_str()) != 0) {
        problem = reason("can't return to " + working_directory);
    }
    return problem;
}

} // namespace kivboard
