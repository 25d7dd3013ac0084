// The listener: back-off, commands, forks, cancellation.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "common/tsan.h"
#include "common/unique_fd.h"
#include "support/forked.h"
#include "support/gpio_test.h"
#include "support/text.h"

using zol_test::calls;
using zol_test::count_of;
using zol_test::eventually;
using zol_test::log_capture;
using zol_test::watch;
using strings = std::vector<std::string>;
using statuses = std::vector<int32_t>;

namespace
{

using GpioListener = zol_test::GpioTest;

TEST_F(GpioListener, AHugeCountHoldsNobodyUpAndOutlastsErrorsAndAStop)
{
    calls calls;
    zol_test::calls next;
    request_and_watch(17, calls);
    request(5);
    pins_.raise(17, INT_MAX);
    const auto grow = [&] {
        return eventually([&, so_far = calls.count.load()] { return calls.count > so_far; });
    };
    EXPECT_TRUE(grow());
    EXPECT_EQ(kiv_gpio_set(5, 1), KIV_OK);
    log_capture log;
    pins_.node(17, "irq").failing = zol_test::on_read;
    pins_.raise(17);
    EXPECT_TRUE(eventually([&] { return !log.texts("ERRR").empty(); }) && grow());
    EXPECT_EQ(kiv_gpio_deinit(), KIV_OK);
    pins_.node(17, "irq").failing = zol_test::on_nothing;
    const long at_the_stop = calls.count;
    std::this_thread::yield();
    EXPECT_EQ(calls.count, at_the_stop);
    EXPECT_EQ(kiv_gpio_init(), KIV_OK);
    EXPECT_TRUE(grow());
    EXPECT_EQ((statuses{kiv_gpio_deinit(), kiv_gpio_init()}), statuses(2, KIV_OK));
    EXPECT_TRUE(grow()) << "without another interrupt";
    EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
    const long at_the_end = calls.count;
    EXPECT_EQ(watch(17, next), KIV_OK);
    EXPECT_EQ(kiv_gpio_free(5), KIV_OK); // a pass
    EXPECT_EQ(calls.count, at_the_end);
    EXPECT_LE(next.count, 1) << "interrupts that were read for a callback are not for the next";
}

TEST_F(GpioListener, NodesInErrorRecoverByThemselves)
{
    calls calls;
    zol_test::calls others;
    request_and_watch(17, calls);
    request_and_watch(5, others);
    const struct {
        zol_test::gpio_failure failing;
        const char *text; // no possible count
        const char *said;
    } cases[] = {{zol_test::on_read, nullptr, "failed reading from fd="},
                 {zol_test::on_seek, nullptr, "failed seeking fd="},
                 {zol_test::on_nothing, "", "got EOF from fd"},
                 {zol_test::on_nothing, "none", "got no number from fd"},
                 {zol_test::on_nothing, "-3", "gpio 17 claims an impossible count of -3 interrupts"},
                 {zol_test::on_nothing, "2147483648", "gpio 17 claims an impossible count of 2147483648 in"}};
    zol_test::set_debug_level(2);
    for (const auto &[failing, text, said] : cases) {
        log_capture log;
        const long so_far = calls.count;
        const long others_so_far = others.count;
        pins_.node(17, "irq").text = text;
        pins_.node(17, "irq").failing = failing;
        pins_.raise(17, 2);
        EXPECT_TRUE(eventually([&] { return log.has("PRNT", "gpio 17 is tried again every 100 ms"); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(250)); // a retry or two
        pins_.raise(5);
        EXPECT_TRUE(others.become(others_so_far + 1));
        pins_.node(17, "irq").failing = zol_test::on_nothing;
        pins_.node(17, "irq").text = text != nullptr ? "2\n" : nullptr;
        EXPECT_TRUE(calls.become(so_far + 2)) << said;
        EXPECT_TRUE(eventually([&] { return log.has("PRNT", "gpio 17 works again"); }));
        ASSERT_EQ(log.texts("ERRR").size(), 1U) << log.out();
        EXPECT_TRUE(log.texts("ERRR")[0].starts_with(said)) << log.out();
        EXPECT_EQ(log.texts("PRNT").size(), 2U);
    }
    pins_.node(17, "irq").failing = zol_test::on_read;
    log_capture log;
    for (const std::size_t registrations : {1U, 2U}) {
        pins_.raise(17);
        EXPECT_TRUE(eventually([&] { return log.texts("PRNT").size() == registrations; }))
            << "a new registration reports the error anew";
        EXPECT_EQ((statuses{kiv_gpio_unregister_callback(17), watch(17, calls)}), statuses(2, KIV_OK));
    }
}

TEST_F(GpioListener, AttributesOfAnOrdinarySysfsNeitherSpinNorLoseInterrupts)
{
    calls calls;
    pins_.act_like_sysfs(17);
    request_and_watch(17, calls);
    request_and_watch(5, calls);
    EXPECT_EQ((statuses{kiv_gpio_free(5), kiv_gpio_unregister_callback(17), watch(17, calls)}),
              statuses(3, KIV_OK));
    zol_test::set_debug_level(3);
    log_capture log;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_LT(log.count("INF1", "IRQ=0 for gpio 17"), 20U) << "readable at all times, but empty";
    zol_test::set_debug_level(1);
    for (long i = 1; i <= 1000; ++i) {
        pins_.raise(17);
        ASSERT_TRUE(calls.become(i));
    }
    zol_test::set_debug_level(3);
    log_capture empty_log;
    pins_.node(17, "irq").text = "0\n";
    const auto begin = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(150)) {
        pins_.raise(17);
    }
    const auto rests = (std::chrono::steady_clock::now() - begin) / std::chrono::milliseconds(100);
    EXPECT_LE(empty_log.count("INF1", "IRQ=0 for gpio 17"), 8U * (static_cast<std::size_t>(rests) + 3))
        << "it claims interrupts that it does not have";
}

TEST_F(GpioListener, WakeUpsInVainMakeNoPinDeaf)
{
    calls calls;
    request_and_watch(17, calls);
    const auto wake_up_in_vain = [&] { // not as often as a node that claims too much
        zol_test::set_debug_level(3);
        log_capture log;
        pins_.node(17, "irq").text = "0\n";
        for (std::size_t empty = 1; empty <= 7; ++empty) {
            pins_.raise(17);
            ASSERT_TRUE(eventually([&] { return log.count("INF1", "IRQ=0 for gpio 17") == empty; }));
        }
        pins_.node(17, "irq").text = nullptr;
    };
    ASSERT_NO_FATAL_FAILURE(wake_up_in_vain());
    std::this_thread::sleep_for(std::chrono::milliseconds(110)); // longer than a back-off
    for (const long interrupts : {1, 2}) {
        ASSERT_NO_FATAL_FAILURE(wake_up_in_vain());
        pins_.raise(17);
        ASSERT_TRUE(calls.become(interrupts));
    }
    ASSERT_NO_FATAL_FAILURE(wake_up_in_vain());
    EXPECT_EQ((statuses{kiv_gpio_unregister_callback(17), watch(17, calls)}), statuses(2, KIV_OK));
    ASSERT_NO_FATAL_FAILURE(wake_up_in_vain());
    pins_.raise(17);
    EXPECT_TRUE(calls.become(3));
}

TEST_F(GpioListener, CommandsAreServedWhilePollFails)
{
    calls calls;
    request_and_watch(17, calls);
    request_and_watch(5, calls);
    rlimit former = {};
    getrlimit(RLIMIT_NOFILE, &former);
    const rlimit none = {0, former.rlim_max};
    for (const long failures : {1, 2}) { // both are reported
        log_capture log;
        zol_test::set_debug_level(3);
        const auto begin = std::chrono::steady_clock::now();
        setrlimit(RLIMIT_NOFILE, &none);
        pins_.raise(17); // ends the last poll that works
        // Without streams: UndefinedBehaviorSanitizer opens a pipe to look at their types.
        const bool is_failing = eventually([&] { return count_of(log.out(), "[ERRR]") != 0; });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const std::size_t passes = count_of(log.out(), "FD 1, revents 0x0\n");
        const auto retries = (std::chrono::steady_clock::now() - begin) / std::chrono::milliseconds(100);
        const int32_t first = kiv_gpio_unregister_callback(17);
        const int32_t second = kiv_gpio_unregister_callback(5);
        setrlimit(RLIMIT_NOFILE, &former);
        EXPECT_TRUE(is_failing);
        EXPECT_LE(passes, static_cast<std::size_t>(retries) + 3);
        EXPECT_EQ((statuses{first, second, watch(17, calls), watch(5, calls)}), statuses(4, KIV_OK));
        EXPECT_EQ(log.texts("ERRR"), strings{"Error in poll, ret=0xffffffff"});
        EXPECT_TRUE(calls.become(failures));
    }
    pins_.raise(5);
    EXPECT_TRUE(calls.become(3));
}

// Holds the listener up in a callback.
struct gate {
    std::atomic<bool> is_entered{false};
    std::atomic<bool> is_open{false};
    std::atomic<bool> is_left{false};

    static int pass(int32_t, uintptr_t user_data)
    {
        gate &self = *reinterpret_cast<gate *>(user_data);
        self.is_entered = true;
        EXPECT_TRUE(eventually([&] { return self.is_open.load(); }));
        pthread_testcancel(); // a stop lets a callback finish
        self.is_left = true;
        return 0;
    }

    void hold(zol_test::fake_gpio &pins)
    {
        ASSERT_EQ(watch(17, pass, this), KIV_OK);
        hold_again(pins);
    }

    void hold_again(zol_test::fake_gpio &pins)
    {
        is_entered = is_open = is_left = false;
        pins.raise(17);
        ASSERT_TRUE(eventually([this] { return is_entered.load(); }));
    }
};

ino_t inode_of(int fd)
{
    struct stat found = {};
    EXPECT_EQ(fstat(fd, &found), 0);
    return found.st_ino;
}

// Of two frees, a registration and a stop.
strings errors_without_a_pipe(bool is_reused, const int (&ends)[2])
{
    const std::string lost = "The listener has ended, gpio ";
    const std::string failed = "ing to the pipe ret=-1, errno=9!";
    strings errors = {"The command pipe was closed, revents 0x20: no more callbacks until a restart",
                      lost + "5", lost + "17", lost + "5"};
    if (is_reused) {
        errors = {"failed writ" + failed, "failed writ" + failed, "failed wrig" + failed,
                  "failed writ" + failed};
    }
    errors.push_back("failed closing READ fd " + std::to_string(ends[0]) + " errno 9");
    errors.push_back("failed closing WRITE fd " + std::to_string(ends[1]));
    return errors;
}

TEST_F(GpioListener, TheListenerEndsWhenTheProgramClosesItsPipe)
{
    calls calls;
    request(17);
    request(5);
    for (const bool is_reused : {false, true}) {
        int ends[2] = {-1, -1};
        log_capture log;
        zol_test::set_debug_level(3);
        EXPECT_EQ((statuses{kiv_gpio_deinit(), kiv_gpio_init()}), statuses(2, KIV_OK));
        for (const std::string &text : log.texts("INF1")) {
            std::sscanf(text.c_str(), "created 2 fds, read %d, write %d", &ends[0], &ends[1]);
        }
        zol_test::set_debug_level(1);
        gate gate;
        gate.hold(pins_);
        int others[2] = {-1, -1};
        ASSERT_EQ(pipe(others), 0);
        for (int i = 0; i < 2; ++i) {
            is_reused ? dup2(others[i], ends[i]) : close(ends[i]);
        }
        gate.is_open = true;
        EXPECT_TRUE(is_reused || eventually([&] { return !log.texts("ERRR").empty(); }));
        errno = 0; // the refusals set it
        EXPECT_EQ((statuses{kiv_gpio_free(5), kiv_gpio_free(17), watch(5, calls)}),
                  statuses(3, is_reused ? KIV_ERR_SYSTEM : KIV_ERR_STATE));
        std::jthread opener;
        if (is_reused) {
            gate.hold_again(pins_);
            opener = std::jthread([&gate] {
                std::this_thread::sleep_for(std::chrono::milliseconds(20)); // most likely within the stop
                gate.is_open = true;
            });
        }
        EXPECT_EQ(kiv_gpio_deinit(), KIV_OK);
        EXPECT_TRUE(gate.is_left);
        EXPECT_EQ(log.texts("ERRR"), errors_without_a_pipe(is_reused, ends));
        EXPECT_EQ((statuses{kiv_gpio_init(), kiv_gpio_unregister_callback(17)}), statuses(2, KIV_OK));
        char text[10] = {};
        EXPECT_EQ(write(others[1], "mine", 4), 4);
        EXPECT_EQ(read(others[0], text, sizeof text), 4) << "the library has written nothing to it";
        for (int i = 0; i < 2; ++i) {
            EXPECT_TRUE(!is_reused || (inode_of(ends[i]) == inode_of(others[i]) && close(ends[i]) == 0))
                << "the library has closed it";
            close(others[i]);
        }
    }
    ASSERT_EQ(watch(17, calls), KIV_OK);
    zol_test::set_debug_level(3);
    log_capture log;
    for (const long interrupts : {1, 2}) {
        pins_.raise(17);
        EXPECT_TRUE(calls.become(interrupts));
    }
    EXPECT_EQ(log.out().find("p_pollfd"), std::string::npos) << "the poll set is made for each pass";
}

TEST_F(GpioListener, ForkedChildrenNeverHang)
{
    gate gate;
    request(17);
    request(5);
    gate.hold(pins_); // the fork does not wait for the callback
    std::thread waiting([] { kiv_gpio_free(5); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // most likely it has its turn by then
    const log_capture log;
    const long descriptors = zol_test::entries_of("/proc/self/fd");
    const auto answers = [descriptors] {
        calls calls;
        int value = 0;
        return zol_test::entries_of("/proc/self/fd") == descriptors - 2 && // without the command pipe
               kiv_gpio_get(5, &value) == KIV_OK && kiv_gpio_free(17) == KIV_ERR_STATE &&
               watch(5, calls) == KIV_ERR_STATE && kiv_gpio_deinit() == KIV_ERR_STATE;
    };
    [[maybe_unused]] const auto restarts = [&log] {
        return kiv_gpio_init() == KIV_OK && kiv_gpio_free(17) == KIV_OK && kiv_gpio_deinit() == KIV_OK &&
               log.texts("ERRR").size() == 3; // the three refusals
    };
#if defined(KIV_TSAN)
    EXPECT_TRUE(zol_test::holds_in_child(answers)); // a child starts no thread there
#else
    EXPECT_TRUE(zol_test::holds_in_child([&] { return answers() && restarts(); }));
#endif
    gate.is_open = true;
    waiting.join();
    EXPECT_EQ(kiv_gpio_free(17), KIV_OK) << "the parent's goes on";
}

TEST_F(GpioListener, ACallbackMayFork)
{
    static std::atomic<pid_t> child;
    static int calls; // of both processes
    const auto note = [](int32_t, uintptr_t) {
        eventfd_write(calls, 1);
        if (child == 0) {
            const pid_t forked = fork();
            child = forked == 0 ? getpid() : forked;
            if (forked == 0) {
                alarm(10);
                int value = 0;
                if (kiv_gpio_get(17, &value) != KIV_ERR_STATE) {
                    _exit(1);
                }
#if defined(KIV_TSAN) || defined(__SANITIZE_ADDRESS__)
                _exit(0); // the sanitizer would complain of what the parent's other threads left
#endif
            }
        }
        return 0; // which ends the child
    };
    const kiv::unique_fd counter(eventfd(0, EFD_CLOEXEC));
    calls = counter.get();
    request(17);
    ASSERT_EQ(watch(17, note), KIV_OK);
    pins_.raise(17, 3);
    EXPECT_TRUE(eventually([] { return child != 0; }));
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK); // behind the three calls
    eventfd_t count = 0;
    EXPECT_EQ(eventfd_read(calls, &count), 0);
    EXPECT_EQ(count, 3U);
}

TEST_F(GpioListener, ACancelledThreadLeavesNoLockBehind)
{
    request(5);
    std::thread([] {
        pthread_cancel(pthread_self());
        kiv_gpio_free(5); // waits for the listener, and could be cancelled there
        pthread_testcancel();
        ADD_FAILURE() << "not cancelled";
    }).join();
    EXPECT_EQ(kiv_gpio_free(5), KIV_ERR_INVALID_PARAM);
    request(5);
    std::thread([] {
        pthread_cancel(pthread_self());
        int level = -1;
        EXPECT_EQ(kiv_gpio_set(5, 1), KIV_OK);
        EXPECT_EQ(kiv_gpio_get(5, &level), KIV_OK);
        pthread_testcancel();
        ADD_FAILURE() << "not cancelled";
    }).join();
    EXPECT_EQ(kiv_gpio_free(5), KIV_OK);
}

TEST_F(GpioListener, CallbacksMayNotCallTheModule)
{
    static int value = 7;
    static statuses refusals;
    static std::atomic<bool> is_done{false};
    static char thread_name[16];
    static sigset_t blocked;
    const auto offend = [](int32_t, uintptr_t) {
        refusals = {kiv_gpio_init(),
                    kiv_gpio_deinit(),
                    kiv_gpio_request(6, "6"),
                    kiv_gpio_free(17),
                    kiv_gpio_set(17, 1),
                    kiv_gpio_get(17, &value),
                    kiv_gpio_direction_in(17),
                    kiv_gpio_direction_out(17),
                    kiv_gpio_status_dump(),
                    watch(5, calls::note),
                    kiv_gpio_unregister_callback(17)};
        pthread_getname_np(pthread_self(), thread_name, sizeof thread_name);
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        is_done = true;
        return 0;
    };
    request(17);
    request(5);
    ASSERT_EQ(watch(17, offend), KIV_OK);
    log_capture log;
    pins_.raise(17);
    ASSERT_TRUE(eventually([] { return is_done.load(); }));
    EXPECT_EQ(refusals, statuses(11, KIV_ERR_STATE));
    EXPECT_EQ(log.texts("ERRR"), strings(11, "not to be called from a callback"));
    EXPECT_STREQ(thread_name, "kiv_gpio");
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 1) << "the program's handlers run on its own threads";
    EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0) << "the thread that started the module takes them as before";
    EXPECT_EQ((statuses{value, kiv_gpio_set(6, 1), kiv_gpio_unregister_callback(5)}),
              (statuses{7, KIV_ERR_INVALID_PARAM, KIV_ERR_INVALID_PARAM}));
    EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK) << "the callback was not taken away";
}

} // namespace
