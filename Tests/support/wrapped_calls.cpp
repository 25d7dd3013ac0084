// The calls that the linker turns over to the tests (--wrap; the list in CMakeLists.txt is the same).

#include <fcntl.h>
#include <glib.h>
#include <libxml/parser.h>
#include <linux/i2c-dev.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <new>

#include "support/fake_chooser.h"
#include "support/fake_gpio.h"
#include "support/fake_host.h"
#include "support/fake_i2c.h"
#include "support/fault_sweep.h"

using zol_test::allocation_fails;
using zol_test::call_fails;
using zol_test::fake_gpio;

// Declares the real call, and defines the wrapper of a call that fails with a result and an errno.
#define WRAPPED(type, name, parameters, arguments, failure, error)                                           \
    WRAPPED_IF(call_fails, type, name, parameters, arguments, failure, error)
#define WRAPPED_IF(fails, type, name, parameters, arguments, failure, error)                                 \
    type __real_##name parameters;                                                                           \
    type __wrap_##name parameters;                                                                           \
    type __wrap_##name parameters                                                                            \
    {                                                                                                        \
        if (fails(#name)) {                                                                                  \
            errno = error;                                                                                   \
            return failure;                                                                                  \
        }                                                                                                    \
        return __real_##name arguments;                                                                      \
    }

// Operator new that returns null: its mangled name depends on the width of size_t. Where that is 32 bits, the
// build asks for 64-bit file offsets, with which these calls have other names.
#if __SIZEOF_SIZE_T__ == 8
#    define NOTHROW_NEW       _ZnwmRKSt9nothrow_t
#    define NOTHROW_NEW_ARRAY _ZnamRKSt9nothrow_t
#else
#    define NOTHROW_NEW       _ZnwjRKSt9nothrow_t
#    define NOTHROW_NEW_ARRAY _ZnajRKSt9nothrow_t
#    define __real_open       __real_open64
#    define __wrap_open       __wrap_open64
#    define __real_fopen      __real_fopen64
#    define __wrap_fopen      __wrap_fopen64
#    define __real_stat       __real_stat64
#    define __wrap_stat       __wrap_stat64
#    define __real_fstat      __real_fstat64
#    define __wrap_fstat      __wrap_fstat64
#    define __real_fcntl      __real_fcntl64
#    define __wrap_fcntl      __wrap_fcntl64
#    define __real_lseek      __real_lseek64
#    define __wrap_lseek      __wrap_lseek64
#    define __wrap___open_2   __wrap___open64_2
#endif
#define ALLOCATOR(name, parameters, arguments)                                                               \
    WRAPPED_IF(allocation_fails, void *, name, parameters, arguments, nullptr, ENOMEM)

namespace
{
std::atomic<bool> g_read_failed{false};
}

extern "C" {

ALLOCATOR(malloc, (std::size_t size), (size))
ALLOCATOR(calloc, (std::size_t count, std::size_t size), (count, size))
ALLOCATOR(NOTHROW_NEW, (std::size_t size, const std::nothrow_t &tag), (size, tag))
ALLOCATOR(NOTHROW_NEW_ARRAY, (std::size_t size, const std::nothrow_t &tag), (size, tag))
WRAPPED(GThread *, g_thread_try_new, (const char *name, GThreadFunc run, gpointer data, GError **error),
        (name, run, data, error), nullptr, EAGAIN)
WRAPPED(int, pthread_barrier_init,
        (pthread_barrier_t * barrier, const pthread_barrierattr_t *attributes, unsigned count),
        (barrier, attributes, count), ENOMEM, 0)
WRAPPED(FILE *, fopen, (const char *path, const char *mode), (zol_test::fake_host::path(path).c_str(), mode),
        nullptr, EMFILE)
WRAPPED(int, mkdir, (const char *path, mode_t mode), (zol_test::fake_host::path(path).c_str(), mode), -1,
        EACCES)
WRAPPED(int, pipe2, (int (&fds)[2], int flags), (fds, flags), -1, EMFILE)
WRAPPED(int, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout), -1, ENOMEM)
WRAPPED(int, sem_init, (sem_t * semaphore, int shared, unsigned value), (semaphore, shared, value), -1,
        ENOSPC)
WRAPPED(int, pthread_attr_init, (pthread_attr_t * attributes), (attributes), ENOMEM, 0)
WRAPPED(int, pthread_create,
        (pthread_t * thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument),
        (thread, attributes, body, argument), EAGAIN, 0)
WRAPPED(FILE *, fdopen, (int fd, const char *mode), (fd, mode), nullptr, ENOMEM)
WRAPPED(FILE *, popen, (const char *command, const char *mode),
        (zol_test::fake_chooser::instead_of(command), mode), nullptr, EMFILE)
WRAPPED(int, fseek, (FILE * file, long offset, int whence), (file, offset, whence), -1, EIO)
WRAPPED(long, ftell, (FILE * file), (file), -1, EIO)
WRAPPED(int, stat, (const char *path, struct stat *status), (zol_test::fake_host::path(path).c_str(), status),
        -1, EACCES)
WRAPPED(int, fstat, (int fd, struct stat *status), (fd, status), -1, EIO)
WRAPPED(int, clock_gettime, (clockid_t clock, timespec *ts), (clock, ts), -1, EINVAL)
WRAPPED(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attributes),
        (mutex, attributes), EAGAIN, 0)
WRAPPED(xmlDoc *, xmlReadFile, (const char *path, const char *encoding, int options),
        (path, encoding, options), nullptr, ENOMEM)
WRAPPED(xmlDoc *, xmlReadMemory,
        (const char *buffer, int size, const char *url, const char *encoding, int options),
        (buffer, size, url, encoding, options), nullptr, ENOMEM)

int __real_gettimeofday(timeval *time, void *zone);
int __wrap_gettimeofday(timeval *time, void *zone);
int __wrap_gettimeofday(timeval *time, void *zone)
{
    return zol_test::fake_host::time(*time) ? 0 : __real_gettimeofday(time, zone);
}

void __real_g_usleep(gulong us);
void __wrap_g_usleep(gulong us);
void __wrap_g_usleep(gulong us)
{
    __real_g_usleep(zol_test::fake_host::sleep_time(us));
}

std::size_t __real_fread(void *data, std::size_t size, std::size_t count, FILE *file);
std::size_t __wrap_fread(void *data, std::size_t size, std::size_t count, FILE *file);
std::size_t __wrap_fread(void *data, std::size_t size, std::size_t count, FILE *file)
{
    g_read_failed = call_fails("fread");
    if (g_read_failed) {
        errno = EIO;
        return 0;
    }
    return __real_fread(data, size, count, file);
}

int __real_ferror(FILE *file);
int __wrap_ferror(FILE *file);
int __wrap_ferror(FILE *file)
{
    return g_read_failed.exchange(false) ? 1 : __real_ferror(file);
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags,
                ...) // the library creates no file, so there is no mode to pass on
{
    if (call_fails("open")) {
        errno = EMFILE;
        return -1;
    }
    return fake_gpio::has(path) ? fake_gpio::installed()->open(path, flags) : __real_open(path, flags);
}

// What a hardened build makes of an open whose flags it does not know.
int __wrap___open_2(const char *path, int flags);
int __wrap___open_2(const char *path, int flags)
{
    return __wrap_open(path, flags);
}

// Only that of a pin's node can fail: the library closes others in places where nobody hears of it.
int __real_close(int fd);
int __wrap_close(int fd);
int __wrap_close(int fd)
{
    if (fake_gpio::of(fd) == nullptr) {
        return __real_close(fd);
    }
    fake_gpio::forget(fd); // before somebody else can have the number
    const bool fails = call_fails("close");
    const int result = __real_close(fd);
    errno = fails ? EIO : errno;
    return fails ? -1 : result;
}

ssize_t __real_read(int fd, void *data, std::size_t size);
ssize_t __wrap_read(int fd, void *data, std::size_t size);
ssize_t __wrap_read(int fd, void *data, std::size_t size)
{
    if (call_fails("read")) {
        errno = EIO;
        return -1;
    }
    zol_test::fake_gpio_node *const node = fake_gpio::of(fd);
    return node != nullptr ? fake_gpio::installed()->read(*node, fd, static_cast<char *>(data), size)
                           : __real_read(fd, data, size);
}

ssize_t __real_write(int fd, const void *data, std::size_t size);
ssize_t __wrap_write(int fd, const void *data, std::size_t size);
ssize_t __wrap_write(int fd, const void *data, std::size_t size)
{
    if (call_fails("write")) {
        errno = EIO;
        return -1;
    }
    zol_test::fake_gpio_node *const node = fake_gpio::of(fd);
    return node != nullptr ? fake_gpio::installed()->write(*node, static_cast<const char *>(data), size)
                           : __real_write(fd, data, size);
}

off_t __real_lseek(int fd, off_t offset, int whence);
off_t __wrap_lseek(int fd, off_t offset, int whence);
off_t __wrap_lseek(int fd, off_t offset, int whence)
{
    if (call_fails("lseek")) {
        errno = EIO;
        return -1;
    }
    zol_test::fake_gpio_node *const node = fake_gpio::of(fd);
    return node != nullptr ? fake_gpio::seek(*node) : __real_lseek(fd, offset, whence);
}

int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long); // numbers and addresses alike
    va_end(arguments);
    if (call_fails("fcntl")) {
        errno = EPERM;
        return -1;
    }
    return __real_fcntl(fd, command, argument);
}

int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    if (call_fails("ioctl")) {
        errno = EIO;
        return -1;
    }
    if (zol_test::fake_i2c *const bus = zol_test::fake_i2c::installed();
        bus != nullptr && request == I2C_RDWR) {
        return bus->transfer(*static_cast<const i2c_rdwr_ioctl_data *>(argument));
    }
    return __real_ioctl(fd, request, argument);
}

} // extern "C"
