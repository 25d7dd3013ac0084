#include "caller_memory.h"

#include <sys/uio.h>

#include <cerrno>

namespace kivboard
{
namespace
{

using copy_call = ssize_t (*)(pid_t, const iovec *, unsigned long, const iovec *, unsigned long,
                              unsigned long);

int copy(copy_call call, pid_t pid, std::uint64_t address, void *data, std::size_t size)
{
    if (address > UINTPTR_MAX) {
        return EFAULT;
    }
    const iovec ours{data, size};
    const iovec theirs{reinterpret_cast<void *>(static_cast<std::uintptr_t>(address)), size};
    const ssize_t copied = size > 0 ? call(pid, &ours, 1, &theirs, 1, 0) : 0;
    if (copied < 0) {
        return errno;
    }
    return static_cast<std::size_t>(copied) == size
               ? 0
               : EFAULT; // a copy ends early at a page that is not mapped
}

} // namespace

int caller_memory::read(std::uint64_t address, void *data, std::size_t size) const
{
    return copy(process_vm_readv, pid_, address, data, size);
}

int caller_memory::write(std::uint64_t address, const void *data, std::size_t size) const
{
    return copy(process_vm_writev, pid_, address, const_cast<void *>(data), size); // is not written
}

} // namespace kivboard
