// Standard streams: closed ones are replaced, and output that does not arrive is an error.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace kiv
{

/// Occupies the descriptors of closed standard streams, before another file or socket gets them. Writes to them
/// fail, as they do to a closed stream.
inline void keep_standard_descriptors() noexcept
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            static_cast<void>(open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY));
        }
    }
}

/// @return The exit status: not 0 if the output could not be written.
inline int after_output(const char *program, int status) noexcept
{
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return status;
    }
    std::fprintf(stderr, "%s: can't write to the standard output\n", program);
    return status != 0 ? status : 1;
}

} // namespace kiv
