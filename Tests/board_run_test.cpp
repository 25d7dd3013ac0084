// Starting a command on the virtual board, when that fails half-way.

#include <gtest/gtest.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "run.h"
#include "sandbox.h"
#include "support/forked.h"
#include "support/scratch.h"

struct fuse_session;

namespace
{

bool g_has_signalfd;

class BoardRun : public testing::Test
{
protected:
    // Runs a board that fails to start. @return Its complaint.
    [[nodiscard]] std::string refusal() const
    {
        testing::internal::CaptureStderr();
        EXPECT_EQ(kivboard::run({"Conf/kiv_board.xml", scratch_.path() / "socket", {}, {}, {"true"}}), 1);
        return testing::internal::GetCapturedStderr();
    }

    zol_test::scratch_directory scratch_;
};

TEST_F(BoardRun, ABoardThatCannotWatchItsCommandDoesNotStartIt)
{
    g_has_signalfd = false;
    EXPECT_EQ(refusal(), "kivboard: can't start the board: Too many open files\n");
}

TEST_F(BoardRun, ABoardThatCannotServeItsFilesKillsItsCommand)
{
    if (kivboard::check() != 0) {
        GTEST_SKIP() << "no virtual board can run here";
    }
    g_has_signalfd = true;
    alarm(30); // a hang is to end as a failure of this test
    EXPECT_EQ(refusal(), "kivboard: can't serve the board's file system\n");
    int status = 0;
    wait(&status);
    alarm(0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
}

TEST_F(BoardRun, ACommandDoesNotWaitForABoardThatHasGone)
{
    if (kivboard::check() != 0) {
        GTEST_SKIP() << "no virtual board can run here";
    }
    const auto send_to_nobody = [](int fuse_fd, int) {
        close(fuse_fd);
        errno = EPIPE;
        return false;
    };
    EXPECT_TRUE(zol_test::holds_in_child([&] {
        kivboard::sandbox files;
        return kivboard::enter_namespaces().empty() &&
               files.show_nodes({}, send_to_nobody, -1) == "can't reach the board: Broken pipe";
    }));
}

} // namespace

extern "C" {

int __real_signalfd(int fd, const sigset_t *signals, int flags);
int __wrap_signalfd(int fd, const sigset_t *signals, int flags);
int __wrap_signalfd(int fd, const sigset_t *signals, int flags)
{
    errno = EMFILE;
    return g_has_signalfd ? __real_signalfd(fd, signals, flags) : -1;
}

int __wrap_fuse_session_mount(fuse_session *, const char *);
int __wrap_fuse_session_mount(fuse_session *, const char *)
{
    return -1;
}

} // extern "C"
