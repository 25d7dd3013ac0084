#include "zol/kiv_gpio.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/tsan.h"
#include "common/unique_fd.h"
#include "support/fake_chips.h"
#include "support/forked.h"
#include "support/gpio_test.h"

using zol_test::calls;
using zol_test::eventually;
using zol_test::log_capture;
using zol_test::watch;
using strings = std::vector<std::string>;
using statuses = std::vector<int32_t>;

namespace
{

using Gpio = zol_test::GpioTest;

TEST_F(Gpio, PinsAndInterruptsOutliveAStop)
{
    calls calls;
    request_and_watch(17, calls);
    request(5);
    const long descriptors = open_descriptors();
    for (const long round : {1, 2, 3}) {
        log_capture log;
        EXPECT_EQ((statuses{kiv_gpio_init(), kiv_gpio_deinit(), kiv_gpio_deinit(), kiv_gpio_free(17),
                            kiv_gpio_unregister_callback(17), watch(5, calls), kiv_gpio_set(5, 1)}),
                  (statuses{KIV_ERR_STATE, KIV_OK, KIV_ERR_STATE, KIV_ERR_STATE, KIV_ERR_STATE, KIV_ERR_STATE,
                            KIV_OK}))
            << "levels need no listener";
        EXPECT_EQ(log.texts("ERRR"),
                  (strings{"module initialized already", "Trying to deinitialize uninitialized module",
                           "Module is not initialized, gpio 17", "Module is not initialized, gpio 17",
                           "Module is not initialized, gpio 5"}));
        pins_.raise(17, 2);
        EXPECT_EQ(calls.count, 2 * (round - 1));
        EXPECT_EQ(kiv_gpio_init(), KIV_OK);
        EXPECT_TRUE(calls.become(2 * round)) << "nothing was lost meanwhile";
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Gpio, RefusesUnallocatedNumbersAndNull)
{
    calls calls;
    int value = 7;
    request(17);
    log_capture log;
    EXPECT_EQ((statuses{kiv_gpio_set(5, 1), kiv_gpio_get(5, nullptr), kiv_gpio_direction_in(5),
                        kiv_gpio_direction_out(-1), watch(5, calls), kiv_gpio_unregister_callback(5),
                        kiv_gpio_free(5)}),
              statuses(7, KIV_ERR_INVALID_PARAM));
    EXPECT_EQ(log.texts("ERRR"), strings(7, "Failed to find the gpio - gpio is not allocated."));
    EXPECT_EQ((statuses{kiv_gpio_get(17, nullptr), kiv_gpio_request(17, nullptr),
                        watch(17, kiv_gpio_cbk(nullptr))}),
              statuses(3, KIV_ERR_INVALID_PARAM));
    EXPECT_TRUE(log.has("ERRR", "Got NULL as destination for output!"));
    EXPECT_EQ(
        (statuses{kiv_gpio_direction_in(17), kiv_gpio_direction_out(17), kiv_gpio_get(17, &value), value}),
        statuses(4, 0));
}

TEST_F(Gpio, LevelsAreTextOfTheirNode)
{
    request(5);
    int value = 7;
    zol_test::fake_gpio_node &level = pins_.node(5, "level");
    EXPECT_EQ((statuses{kiv_gpio_set(5, 0), kiv_gpio_set(5, -256)}), statuses(2, KIV_OK));
    EXPECT_EQ(pins_.take_writes(), (strings{{"5 level 0\0", 10}, {"5 level 1\0", 10}}));
    const std::pair<const char *, int> cases[] = {
        {"5\n", 1}, {"0\n", 0}, {" +1", 1}, {"-1\n", 1}, {"4294967296", 1}, {"000000000000000000001", 0}};
    for (const auto &[text, expected] : cases) {
        level.text = text;
        EXPECT_EQ(kiv_gpio_get(5, &value), KIV_OK);
        EXPECT_EQ(value, expected) << text;
    }
    level.text = "";
    const std::pair<zol_test::gpio_failure, const char *> failures[] = {
        {zol_test::on_nothing, "got EOF from fd"},
        {zol_test::on_read, "failed reading from fd="},
        {zol_test::on_seek, "failed seeking fd="},
        {zol_test::on_write, "failed writing to fd="}};
    for (const auto &[failing, said] : failures) {
        log_capture log;
        level.failing = failing;
        value = 7;
        EXPECT_EQ((statuses{kiv_gpio_set(5, 1), kiv_gpio_get(5, &value), value}), statuses(3, 0));
        EXPECT_TRUE(log.texts("ERRR").front().starts_with(said)) << log.out();
    }
}

TEST_F(Gpio, PinsOfOneNumberShareItsInterrupts)
{
    calls older;
    calls newer;
    request_and_watch(17, older, "older");
    request_and_watch(17, newer, "newer");
    for (long raised = 1; raised <= 5000; ++raised) {
        pins_.raise(17); // one finds nothing, and is not to stop looking
        EXPECT_TRUE(eventually([&] { return older.count + newer.count == raised; }));
    }
    EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
    zol_test::set_debug_level(3);
    log_capture log;
    EXPECT_EQ(kiv_gpio_status_dump(), KIV_OK);
    const strings dump = log.texts("INF1");
    ASSERT_EQ(dump.size(), 1U + 6U + 6U + 1U);
    EXPECT_EQ(dump[2], "GPIO no.17 :           newer");
    EXPECT_EQ(dump[4], "cbk\t\t:0x00000000, \t\tuser_data=0xffffffff");
    EXPECT_EQ(dump[6], "edge_cfg=\t:0xffffffff, \t\tlevel_cfg=0xffffffff");
    EXPECT_EQ(dump[8], "GPIO no.17 :           older");
    EXPECT_EQ(dump[11], "level_edge\t:0x00000002");
    EXPECT_EQ(kiv_gpio_free(17), KIV_OK);
    pins_.raise(17, 3);
    EXPECT_TRUE(eventually([&] { return older.count + newer.count == 5003; }));
    EXPECT_EQ((statuses{kiv_gpio_free(17), kiv_gpio_free(17)}), (statuses{KIV_OK, KIV_ERR_INVALID_PARAM}));
}

TEST_F(Gpio, PinsStaySimulatedOrTheBoards)
{
    calls calls;
    int value = 0;
    log_capture log;
    const long descriptors = open_descriptors();
    request(17);
    kiv_gpio_set_simulator_mode(1);
    request_and_watch(5, calls);
    ASSERT_EQ(watch(17, calls), KIV_OK);
    EXPECT_EQ(pins_.take_writes().size(), 3U);
    kiv_gpio_set_simulator_mode(0);
    EXPECT_EQ((statuses{kiv_gpio_set(5, -7), kiv_gpio_get(5, &value), value}),
              (statuses{KIV_OK, KIV_OK, -7}));
    pins_.raise(5);
    pins_.raise(17, 3);
    EXPECT_TRUE(calls.become(3));
    EXPECT_EQ((statuses{kiv_gpio_free(5), kiv_gpio_free(17)}), statuses(2, KIV_OK));
    EXPECT_EQ(log.out(), "") << "each end of a pipe is closed once";
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Gpio, RegistrationEnablesTheInterruptInOrder)
{
    constexpr int gpio = 70'000;
    calls first;
    calls second;
    request(gpio);
    zol_test::set_debug_level(3);
    log_capture log;
    EXPECT_EQ(watch(gpio, first), KIV_OK);
    EXPECT_EQ(pins_.take_writes(), (strings{{"70000 irqrequest 1\0", 19},
                                            "70000 irqconfig 2" + std::string(63, '\0'),
                                            {"70000 irqmask 0\0", 16}}));
    EXPECT_TRUE(log.has("INF1", "Command register cbk for gpio 4464")) << "the low half of the number";
    EXPECT_EQ(watch(gpio, second), KIV_ERR_INVALID_PARAM);
    pins_.raise(gpio);
    EXPECT_TRUE(first.become(1)) << "which stays in force";
    EXPECT_EQ(first.last_gpio, gpio);
    EXPECT_EQ(kiv_gpio_unregister_callback(gpio), KIV_OK);
    EXPECT_TRUE(log.has("INF1", "Command unregister cbk for gpio 4464"));
    pins_.raise(gpio, 3);
    EXPECT_EQ(pins_.take_writes(), strings{}) << "the board's interrupt stays as it is";
    EXPECT_EQ(watch(gpio, second), KIV_OK);
    EXPECT_TRUE(second.become(3)) << "counted by the board, and not lost";
    EXPECT_EQ(first.count, 1);
    EXPECT_EQ(kiv_gpio_free(gpio), KIV_OK);
}

TEST_F(Gpio, AHugeCountHoldsNobodyUpAndOutlastsErrorsAndAStop)
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
    EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK);
    const long at_the_end = calls.count;
    EXPECT_EQ(watch(17, next), KIV_OK);
    EXPECT_EQ(kiv_gpio_free(5), KIV_OK); // a pass
    EXPECT_EQ(calls.count, at_the_end);
    EXPECT_LE(next.count, 1) << "interrupts that were read for a callback are not for the next";
}

TEST_F(Gpio, NodesInErrorRecoverByThemselves)
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
}

TEST_F(Gpio, AttributesOfAnOrdinarySysfsNeitherSpinNorLoseInterrupts)
{
    calls calls;
    pins_.act_like_sysfs(17);
    request_and_watch(17, calls);
    zol_test::set_debug_level(3);
    log_capture log;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_LT(log.count("INF1", "IRQ=0 for gpio 17"), 20U) << "readable at all times, but empty";
    zol_test::set_debug_level(1);
    for (long i = 1; i <= 1000; ++i) {
        pins_.raise(17);
        ASSERT_TRUE(calls.become(i));
    }
}

TEST_F(Gpio, CommandsAreServedWhilePollFails)
{
    calls calls;
    request_and_watch(17, calls);
    request_and_watch(5, calls);
    rlimit former = {};
    getrlimit(RLIMIT_NOFILE, &former);
    const rlimit none = {0, former.rlim_max};
    log_capture log;
    setrlimit(RLIMIT_NOFILE, &none);
    const int32_t first = kiv_gpio_unregister_callback(17);
    const int32_t second = kiv_gpio_unregister_callback(5);
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_EQ((statuses{first, second, watch(5, calls)}), statuses(3, KIV_OK));
    EXPECT_EQ(log.texts("ERRR"), strings{"Error in poll, ret=0xffffffff"});
    pins_.raise(5);
    EXPECT_TRUE(calls.become(1));
}

// Holds the listener up in a callback.
struct gate {
    std::atomic<bool> is_entered{false};
    std::atomic<bool> is_open{false};

    static int pass(int32_t, uintptr_t user_data)
    {
        gate &self = *reinterpret_cast<gate *>(user_data);
        self.is_entered = true;
        return eventually([&] { return self.is_open.load(); }) ? 0 : -1;
    }

    void hold(zol_test::fake_gpio &pins)
    {
        ASSERT_EQ(watch(17, pass, this), KIV_OK);
        pins.raise(17);
        ASSERT_TRUE(eventually([this] { return is_entered.load(); }));
    }
};

TEST_F(Gpio, TheListenerEndsWhenTheProgramClosesItsPipe)
{
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
        EXPECT_EQ(kiv_gpio_free(5), is_reused ? KIV_ERR_SYSTEM : KIV_ERR_STATE);
        EXPECT_EQ((statuses{kiv_gpio_deinit(), kiv_gpio_init(), kiv_gpio_unregister_callback(17)}),
                  statuses(3, KIV_OK));
        char text[10] = {};
        EXPECT_EQ(write(others[1], "mine", 4), 4);
        EXPECT_EQ(read(others[0], text, sizeof text), 4) << "the library has written nothing to it";
        for (int i = 0; i < 2; ++i) {
            EXPECT_TRUE(!is_reused || close(ends[i]) == 0) << "the library has closed it";
            close(others[i]);
        }
    }
}

TEST_F(Gpio, ForkedChildrenNeverHang)
{
    gate gate;
    request(17);
    request(5);
    gate.hold(pins_); // the fork does not wait for the callback
    const auto answers = [] {
        calls calls;
        int value = 0;
        return kiv_gpio_get(5, &value) == KIV_OK && kiv_gpio_free(17) == KIV_ERR_STATE &&
               watch(5, calls) == KIV_ERR_STATE && kiv_gpio_deinit() == KIV_ERR_STATE;
    };
    [[maybe_unused]] const auto restarts = [] {
        return kiv_gpio_init() == KIV_OK && kiv_gpio_free(17) == KIV_OK && kiv_gpio_deinit() == KIV_OK;
    };
#if defined(KIV_TSAN)
    EXPECT_TRUE(zol_test::holds_in_child(answers)); // a child starts no thread there
#else
    EXPECT_TRUE(zol_test::holds_in_child([&] { return answers() && restarts(); }));
#endif
    gate.is_open = true;
    EXPECT_EQ(kiv_gpio_free(17), KIV_OK) << "the parent's goes on";
}

TEST_F(Gpio, ACallbackMayFork)
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

TEST_F(Gpio, ACancelledThreadLeavesNoLockBehind)
{
    request(5);
    std::thread([] {
        pthread_cancel(pthread_self());
        kiv_gpio_free(5); // waits for the listener, and could be cancelled there
        pthread_testcancel();
        ADD_FAILURE() << "not cancelled";
    }).join();
    EXPECT_EQ(kiv_gpio_free(5), KIV_ERR_INVALID_PARAM);
}

TEST_F(Gpio, CallbacksMayNotCallTheModule)
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
    EXPECT_EQ((statuses{value, kiv_gpio_set(6, 1), kiv_gpio_unregister_callback(5)}),
              (statuses{7, KIV_ERR_INVALID_PARAM, KIV_ERR_INVALID_PARAM}));
    EXPECT_EQ(kiv_gpio_unregister_callback(17), KIV_OK) << "the callback was not taken away";
}

enum pin_kind { board, simulated, line };

class GpioSweep : public Gpio, public testing::WithParamInterface<pin_kind>
{
protected:
    GpioSweep()
    {
        kiv_gpio_set_simulator_mode(GetParam() == simulated ? 1 : 0);
        kiv_gpio_deinit();
        kiv_config_deinit();
        const char *const chips = GetParam() == line ? "<gpio_chips_num>1</gpio_chips_num>"
                                                       "<gpio_chip_0_dev>soc</gpio_chip_0_dev>"
                                                     : "";
        const std::string general = std::string("<configName>sweep</configName>") + chips;
        kiv_config_init(scratch_.write("conf.xml", zol_test::configuration(general)).c_str());
        EXPECT_EQ(live(), ""); // after which the fake has all its lines
    }

    // A step that fails returns the status of the call that failed. Every other failure has to be survived.
    static bool is_documented(int32_t status)
    {
        static const std::pair<int32_t, const char *> documented[] = {
            {KIV_ERR_OPEN, "open"},       {KIV_ERR_OPEN, "ioctl"},
            {KIV_ERR_SYSTEM, "ioctl"},    {KIV_ERR_SYSTEM, "fcntl"},
            {KIV_ERR_NO_MEMORY, "_Zn"},   {KIV_ERR_SYSTEM, "pipe2"},
            {KIV_ERR_SYSTEM, "sem_init"}, {KIV_ERR_SYSTEM, "pthread_attr_init"},
            {KIV_ERR_SYSTEM, "write"},    {KIV_ERR_SYSTEM, "pthread_create"}};
        return std::any_of(std::begin(documented), std::end(documented), [status](const auto &each) {
            return each.first == status && zol_test::failed_call().starts_with(each.second);
        });
    }

    // A chip that is not found at the start is left out until the next.
    static int32_t start(const log_capture &log)
    {
        const int32_t status = kiv_gpio_init();
        const bool lacks_chip = GetParam() == line && status == KIV_OK && !log.texts("ERRR").empty();
        return lacks_chip && kiv_gpio_deinit() == KIV_OK ? kiv_gpio_init() : status;
    }

    bool raise_twice(calls &calls)
    {
        if (GetParam() == line) {
            chips_.raise();
            chips_.raise();
        } else {
            pins_.raise(17, 2);
        }
        return GetParam() == simulated || calls.become(2);
    }

    // A whole life, in which a step that failed is taken once more.
    std::string live()
    {
        log_capture log;
        calls calls;
        int value = 0;
        std::string complaint;
        const std::pair<const char *, std::function<int32_t()>> steps[] = {
            {"init", [&] { return start(log); }},
            {"request", [] { return kiv_gpio_request(5, "first"); }},
            {"free", [] { return kiv_gpio_free(5); }}, // the listener has started now, and waits
            {"request", [] { return kiv_gpio_request(17, "swept"); }},
            {"set", [] { return kiv_gpio_set(17, 1); }},
            {"get", [&] { return kiv_gpio_get(17, &value); }},
            {"register", [&] { return watch(17, calls); }},
            {"raise", [&] { return raise_twice(calls) ? KIV_OK : KIV_ERR_TIMEOUT; }},
            {"unregister", [] { return kiv_gpio_unregister_callback(17); }},
            {"register", [&] { return watch(17, calls); }},
            {"free", [] { return kiv_gpio_free(17); }},
            {"deinit", kiv_gpio_deinit},
        };
        for (const auto &[name, step] : steps) {
            if (const int32_t status = step(); status != KIV_OK) {
                refusals_.push_back(name + (" " + std::to_string(status)));
                complaint += is_documented(status) && step() == KIV_OK ? "" : refusals_.back();
            }
        }
        const std::string failed = zol_test::failed_call();
        const bool is_tried_again = failed == "read" || failed == "fstat";
        if (!is_tried_again && failed.empty() != log.texts("ERRR").empty()) {
            complaint += failed.empty() ? "an error line without an error" : "unreported";
        }
        return complaint;
    }

    strings refusals_; // "free -30", whenever a step fails
    zol_test::fake_chips chips_{{{"soc", 32}}};
};

TEST_P(GpioSweep, ReportsOrSurvivesEveryFailure)
{
    const zol_test::sweep_result result = zol_test::sweep_faults([this] { return live(); });
    EXPECT_EQ(result.complaints, "");
    EXPECT_GE(result.failures, GetParam() == simulated ? 20 : 40);
    refusals_.clear();
    EXPECT_EQ(zol_test::sweep_faults([this] { return live(); }, "write").complaints, "");
    EXPECT_EQ(refusals_, (strings{"free -30", "register -30", "register -30", "free -30"}))
        << "no other write is refused: to a node, of an unregistration, of the stop";
}

constexpr const char *kinds[] = {"board", "simulated", "line"};

INSTANTIATE_TEST_SUITE_P(Pins, GpioSweep, testing::Values(board, simulated, line),
                         [](const auto &kind) { return kinds[kind.param]; });

} // namespace
