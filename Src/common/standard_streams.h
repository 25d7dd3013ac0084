// What a program owes those who read its standard output.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace kiv
{

/// Takes the places of standard streams that are closed, before another file or socket does. What is written
/// there fails, as to a closed one.
inline void keep_standard_descriptors() noexcept
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            static_cast<void>(open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY));
        }
    }
}

/// @return The status to end with: not 0 if what was printed has not arrived.
inline int after_output(const char *program, int status) noexcept
{
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return status;
    }
    std::fprintf(stderr, "%s: can't write to the standard output\n", program);
    return status != 0 ? status : 1;
}

} // namespace kiv
