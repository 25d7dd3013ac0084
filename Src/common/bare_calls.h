// Reads and writes that are no cancellation points, unlike those of the C library: a thread may make them while it holds a
// lock, without switching its cancellation off and on. That would take longer than the rest of a short operation.
#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

namespace kiv
{

inline ssize_t bare_read(int fd, void *data, std::size_t size) noexcept
{
    return syscall(SYS_read, fd, data, size);
}

inline ssize_t bare_write(int fd, const void *data, std::size_t size) noexcept
{
    return syscall(SYS_write, fd, data, size);
}

} // namespace kiv
