// The memory of the process whose system call is being answered.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace kivboard
{

/// The kernel gives a FUSE server the address of an ioctl's argument, not its content. The server may access
/// the memory of its descendants, which include the board's COMMAND, even where access to other processes is
/// restricted.
class caller_memory
{
public:
    explicit caller_memory(pid_t pid) : pid_(pid) {}

    /// @return 0 or an errno value: EFAULT for an address that is not the caller's, EPERM when access is
    /// forbidden.
    int read(std::uint64_t address, void *data, std::size_t size) const;
    int write(std::uint64_t address, const void *data, std::size_t size) const;

private:
    pid_t pid_;
};

} // namespace kivboard
