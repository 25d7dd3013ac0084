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
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <new>

#include "support/fake_chips.h"
#include "support/fake_gpio.h"
#include "support/fake_host.h"
#include "support/fake_i2c.h"
#include "support/fault_sweep.h"

using zol_test::call_fails;
using zol_test::fake_chips;
using zol_test::fake_gpio;
using zol_test::fake_host;

// Declares the real call and its wrapper, whose body follows.
#define WRAPPER(type, name, parameters)                                                                      \
    type __real_##name parameters;                                                                           \
    type __wrap_##name parameters;                                                                           \
    type __wrap_##name parameters

// A call that fails, when it is to, with a result and an errno.
#define WRAPPED(type, name, parameters, failure, error, otherwise)                                           \
    WRAPPER(type, name, parameters)                                                                          \
    {                                                                                                        \
        return call_fails(#name, error) ? failure : otherwise;                                               \
    }
#define REAL(name) __real_##name
#define ALLOCATOR(name, parameters, arguments)                                                               \
    WRAPPED(void *, name, parameters, nullptr, ENOMEM, (zol_test::count_allocation(), REAL(name) arguments))

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

namespace
{

std::atomic<bool> g_read_failed{false};

fake_gpio *pins()
{
    return fake_gpio::installed();
}

} // namespace

extern "C" {

ALLOCATOR(malloc, (std::size_t size), (size))
ALLOCATOR(calloc, (std::size_t count, std::size_t size), (count, size))
ALLOCATOR(NOTHROW_NEW, (std::size_t size, const std::nothrow_t &tag), (size, tag))
ALLOCATOR(NOTHROW_NEW_ARRAY, (std::size_t size, const std::nothrow_t &tag), (size, tag))
WRAPPED(GThread *, g_thread_try_new, (const char *name, GThreadFunc run, gpointer data, GError **error),
        nullptr, EAGAIN, __real_g_thread_try_new(name, run, data, error))
WRAPPED(int, pthread_barrier_init,
        (pthread_barrier_t * barrier, const pthread_barrierattr_t *attributes, unsigned count), ENOMEM, 0,
        __real_pthread_barrier_init(barrier, attributes, count))
WRAPPED(int, pthread_attr_init, (pthread_attr_t * attributes), ENOMEM, 0,
        __real_pthread_attr_init(attributes))
WRAPPED(int, pthread_create,
        (pthread_t * thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument), EAGAIN,
        0, __real_pthread_create(thread, attributes, body, argument))
WRAPPED(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attributes), EAGAIN, 0,
        __real_pthread_mutex_init(mutex, attributes))
WRAPPED(int, sem_init, (sem_t * semaphore, int shared, unsigned value), -1, ENOSPC,
        __real_sem_init(semaphore, shared, value))
WRAPPED(FILE *, fopen, (const char *path, const char *mode), nullptr, EMFILE,
        __real_fopen(fake_host::path(path).c_str(), mode))
WRAPPED(FILE *, fdopen, (int fd, const char *mode), nullptr, ENOMEM, __real_fdopen(fd, mode))
WRAPPED(FILE *, popen, (const char *command, const char *mode), nullptr, EMFILE,
        __real_popen(fake_host::command(command).c_str(), mode))
WRAPPED(int, fseek, (FILE * file, long offset, int whence), -1, EIO, __real_fseek(file, offset, whence))
WRAPPED(long, ftell, (FILE * file), -1, EIO, __real_ftell(file))
WRAPPED(int, mkdir, (const char *path, mode_t mode), -1, EACCES,
        __real_mkdir(fake_host::path(path).c_str(), mode))
WRAPPED(int, stat, (const char *path, struct stat *status), -1, EACCES,
        __real_stat(fake_host::path(path).c_str(), status))
WRAPPED(int, fstat, (int fd, struct stat *status), -1, EIO, __real_fstat(fd, status))
// A program that is started must not inherit a pipe.
WRAPPED(int, pipe2, (int (&fds)[2], int flags), -1, EMFILE,
        __real_pipe2(fds, (flags & O_CLOEXEC) != 0 ? flags : -1))
WRAPPED(xmlDoc *, xmlReadFile, (const char *path, const char *encoding, int options), nullptr, ENOMEM,
        __real_xmlReadFile(path, encoding, options))
WRAPPED(xmlDoc *, xmlReadMemory,
        (const char *buffer, int size, const char *url, const char *encoding, int options), nullptr, ENOMEM,
        __real_xmlReadMemory(buffer, size, url, encoding, options))
WRAPPED(int, clock_gettime, (clockid_t clock, timespec *ts), -1, EINVAL,
        fake_host::time(clock, *ts) ? 0 : __real_clock_gettime(clock, ts))
WRAPPED(int, poll, (pollfd * fds, nfds_t count, int timeout), -1, ENOMEM,
        pins() != nullptr ? pins()->poll(fds, count, timeout) : __real_poll(fds, count, timeout))
WRAPPED(ssize_t, write, (int fd, const void *data, std::size_t size), -1, EIO,
        fake_gpio::of(fd) != nullptr
            ? pins()->write(*fake_gpio::of(fd), static_cast<const char *>(data), size)
            : __real_write(fd, data, size))
WRAPPED(off_t, lseek, (int fd, off_t offset, int whence), -1, EIO,
        fake_gpio::of(fd) != nullptr ? fake_gpio::seek(*fake_gpio::of(fd)) : __real_lseek(fd, offset, whence))

// The library creates no file by this call. The measurement of coverage does, at the end of the process. A program that is
// started must not inherit a descriptor of the library.
WRAPPER(int, open, (const char *path, int flags, ...))
{
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        const mode_t mode = va_arg(arguments, mode_t);
        va_end(arguments);
        return __real_open(path, flags, mode);
    }
    if (call_fails("open", EMFILE) || (flags & O_CLOEXEC) == 0) {
        return -1;
    }
    return fake_gpio::has(path)              ? pins()->open(path)
           : fake_chips::of(path) != nullptr ? fake_chips::of(path)->open(path)
                                             : __real_open(path, flags);
}

// A hardened build calls this when the compiler does not know the flags.
int __wrap___open_2(const char *path, int flags);
int __wrap___open_2(const char *path, int flags)
{
    return __wrap_open(path, flags);
}

WRAPPER(int, gettimeofday, (timeval * time, void *zone))
{
    timespec now = {};
    const bool is_faked = fake_host::time(CLOCK_REALTIME, now);
    *time = {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
    return is_faked ? 0 : __real_gettimeofday(time, zone);
}

WRAPPER(void, g_usleep, (gulong us))
{
    __real_g_usleep(static_cast<gulong>(fake_host::sleep_time(us)));
}

WRAPPER(gpointer, g_async_queue_timeout_pop, (GAsyncQueue * queue, guint64 us))
{
    constexpr guint64 of_a_tool = 100'000; // a shorter limit is a matter of the library's own
    return __real_g_async_queue_timeout_pop(queue, us < of_a_tool ? us : fake_host::sleep_time(us));
}

WRAPPER(std::size_t, fread, (void *data, std::size_t size, std::size_t count, FILE *file))
{
    g_read_failed = call_fails("fread", EIO);
    return g_read_failed ? 0 : __real_fread(data, size, count, file);
}

WRAPPER(int, ferror, (FILE * file))
{
    return g_read_failed.exchange(false) ? 1 : __real_ferror(file);
}

// Fails for the node of a pin only: the library ignores the result elsewhere.
WRAPPER(int, close, (int fd))
{
    const bool is_node = fake_gpio::of(fd) != nullptr;
    if (is_node) {
        fake_gpio::forget(fd); // before another thread can get the number
    }
    const int result = __real_close(fd);
    return is_node && call_fails("close", EIO) ? -1 : result;
}

WRAPPER(ssize_t, read, (int fd, void *data, std::size_t size))
{
    if (call_fails("read", EIO)) {
        return -1;
    }
    if (fake_gpio::of(fd) != nullptr) {
        return pins()->read(*fake_gpio::of(fd), fd, static_cast<char *>(data), size);
    }
    const ssize_t result = __real_read(fd, data, size);
    if (result < 0 && errno == EAGAIN) {
        zol_test::call_returned("read");
        errno = EAGAIN;
    }
    return result;
}

// The library reads and writes by number where its threads must not be cancelled, so the real call is made by number too.
WRAPPER(long, syscall, (long number, ...))
{
    long given[6];
    va_list arguments;
    va_start(arguments, number);
    for (long &argument : given) {
        argument = va_arg(arguments, long);
    }
    va_end(arguments);
    const bool is_write = number == SYS_write;
    if ((is_write && call_fails("write", EIO)) || (number == SYS_read && call_fails("read", EIO))) {
        return -1;
    }
    const int fd = static_cast<int>(given[0]);
    if (zol_test::fake_gpio_node *const node = is_write || number == SYS_read ? fake_gpio::of(fd) : nullptr) {
        const auto size = static_cast<std::size_t>(given[2]);
        return is_write ? pins()->write(*node, reinterpret_cast<const char *>(given[1]), size)
                        : pins()->read(*node, fd, reinterpret_cast<char *>(given[1]), size);
    }
    const long result = __real_syscall(number, given[0], given[1], given[2], given[3], given[4], given[5]);
    if (is_write && result >= 0) {
        zol_test::call_returned("write");
    }
    return result;
}

WRAPPER(int, fcntl, (int fd, int command, ...))
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long); // numbers and addresses alike
    va_end(arguments);
    return call_fails("fcntl", EPERM) ? -1 : __real_fcntl(fd, command, argument);
}

WRAPPER(int, ioctl, (int fd, unsigned long request, ...))
{
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    if (call_fails("ioctl", EIO)) {
        return -1;
    }
    if (fake_chips *const chips = fake_chips::of(request); chips != nullptr) {
        return chips->ioctl(fd, request, argument);
    }
    zol_test::fake_i2c *const bus = request == I2C_RDWR ? zol_test::fake_i2c::installed() : nullptr;
    return bus != nullptr ? bus->transfer(*static_cast<const i2c_rdwr_ioctl_data *>(argument))
                          : __real_ioctl(fd, request, argument);
}

} // extern "C"
