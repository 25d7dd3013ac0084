#include "timing_lines.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zol_tools
{
namespace
{

std::FILE *open_to_read(const std::string &path)
{
    return path == "-" ? fdopen(dup(STDIN_FILENO), "r") : std::fopen(path.c_str(), "re");
}

// @return 0 if it is not known, as that of a pipe.
std::uint64_t size_of(const std::string &path)
{
    struct stat status = {};
    const bool is_known = stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    return is_known ? static_cast<std::uint64_t>(status.st_size) : 0;
}

} // namespace

line_reader::line_reader(const std::string &path)
    : path_(path), file_(open_to_read(path)), error_(file_ == nullptr ? errno : 0),
      progress_("reading " + path, size_of(path))
{
}

bool line_reader::next(std::string_view &line)
{
    if (file_ == nullptr) {
        return false;
    }
    char *memory = buffer_.release(); // getline() replaces it when a line needs more
    const ssize_t size = getline(&memory, &capacity_, file_.get());
    const int error = errno;
    buffer_.reset(memory);
    if (size < 0) {
        error_ = std::ferror(file_.get()) != 0 ? error : 0;
        return false;
    }
    line = std::string_view(memory, static_cast<std::size_t>(size));
    bytes_ += line.size();
    is_cut_ = !line.ends_with('\n');
    line.remove_suffix(is_cut_ ? 0 : 1);
    line.remove_suffix(line.ends_with('\r') ? 1 : 0); // of a file that was on another system
    ++number_;
    progress_.at(bytes_);
    return true;
}

std::string line_reader::mistake(const std::string &what) const
{
    return path_ + ":" + std::to_string(number_) + ": " + what;
}

std::string line_reader::failure() const
{
    return error_ == 0 ? "" : path_ + ": cannot be read: " + std::strerror(error_);
}

} // namespace zol_tools
