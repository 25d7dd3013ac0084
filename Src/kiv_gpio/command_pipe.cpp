// The listener's command pipe, and the semaphore by which it answers.

#include "command_pipe.h"

#include <fcntl.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "kiv_debug/log_as.h"

namespace
{

constexpr uint32_t ping_word = 0xDEADBEEF;

int g_fds[2] = {-1, -1}; // the listener's end, the callers' end
struct stat g_pipe;      // identifies their pipe; zero: unknown
sem_t g_api_sem;

// A program that closes all its descriptors, as daemons do, may get these numbers for files of its own.
bool is_own(int fd) noexcept
{
    struct stat found = {};
    if (fstat(fd, &found) != 0) {
        return errno != EBADF;
    }
    return g_pipe.st_ino == 0 || (found.st_dev == g_pipe.st_dev && found.st_ino == g_pipe.st_ino);
}

bool write_word(uint32_t word, ssize_t &result)
{
    result = -1;
    if (!is_own(g_fds[1])) {
        errno = EBADF;
        return false;
    }
    result = TEMP_FAILURE_RETRY(write(g_fds[1], &word, sizeof word));
    return result >= 1;
}

// @return False with errno set.
bool close_end(int fd) noexcept
{
    if (!is_own(fd)) {
        errno = EBADF;
        return false;
    }
    return close(fd) == 0;
}

} // namespace

bool __listener_send_msg(uint32_t word)
{
    ssize_t result = 0;
    if (!write_word(word, result)) {
        KIV_LOG_ERRR("failed wriging to the pipe ret=%d, errno=%d!\n", static_cast<int>(result), errno);
        return false;
    }
    return true;
}

bool __listener_ping()
{
    ssize_t result = 0;
    if (!write_word(ping_word, result)) {
        KIV_LOG_ERRR("failed writing to the pipe ret=%d, errno=%d!\n", static_cast<int>(result), errno);
        return false;
    }
    return true;
}

// The listener posts once for each word, and one caller at a time sends one.
void __listener_wait_for_completion()
{
    TEMP_FAILURE_RETRY(sem_wait(&g_api_sem));
}

// Not blocking: the listener also looks for words when poll() cannot tell that there are any.
bool kiv::gpio::open_command_pipe(call_site site)
{
    if (pipe2(g_fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        KIV_LOG_AT(site, ERRR, "Failed to create pipe.\n");
        return false;
    }
    if (fstat(g_fds[0], &g_pipe) != 0) {
        g_pipe = {};
    }
    KIV_LOG_AT(site, INF1, "created 2 fds, read %d, write %d\n", g_fds[0], g_fds[1]);
    return true;
}

void kiv::gpio::close_command_pipe(call_site site)
{
    if (const int fd = std::exchange(g_fds[0], -1); !close_end(fd)) {
        KIV_LOG_AT(site, ERRR, "failed closing READ fd %d errno %d\n", fd, errno);
    }
    if (const int fd = std::exchange(g_fds[1], -1); !close_end(fd)) {
        KIV_LOG_AT(site, ERRR, "failed closing WRITE fd %d\n errno %d", fd, errno);
    }
}

void kiv::gpio::abandon_command_pipe() noexcept
{
    for (int &fd : g_fds) {
        close_end(std::exchange(fd, -1));
    }
}

bool kiv::gpio::init_answers(call_site site)
{
    const int result = sem_init(&g_api_sem, 0, 0);
    if (result != 0) {
        KIV_LOG_AT(site, ERRR, "Failed to create API semaphore %d, errno %d\n", result, errno);
    }
    return result == 0;
}

void kiv::gpio::destroy_answers() noexcept
{
    sem_destroy(&g_api_sem);
}

int kiv::gpio::command_fd() noexcept
{
    return g_fds[0];
}

bool kiv::gpio::is_command_pipe_gone(short events) noexcept
{
    return (events & (POLLNVAL | POLLERR | POLLHUP)) != 0 || (events != 0 && !is_own(g_fds[0]));
}

bool kiv::gpio::read_command(uint32_t &word) noexcept
{
    return TEMP_FAILURE_RETRY(read(g_fds[0], &word, sizeof word)) >= 1;
}

void kiv::gpio::answer() noexcept
{
    sem_post(&g_api_sem);
}
