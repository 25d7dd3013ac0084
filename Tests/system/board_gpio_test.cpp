// The pins of the virtual board as a program on it meets them: through the kernel. Each test runs this very
// program again, on a board.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_fd.h"
#include "support/scratch.h"
#include "system/command.h"

namespace
{

constexpr char board_xml[] = R"(<board>
  <pins first="0" last="299"/>
  <pin number="300"><fails node="irq" operation="poll"/><fails node="irqmask" operation="open"/></pin>
</board>)";

constexpr int deadline_ms = 20'000; // what comes comes at once; this only ends a test that hangs

// The bench, over one connection.
class bench
{
public:
    bench()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, std::getenv("KIVBOARD_SOCKET"), sizeof address.sun_path - 1);
        EXPECT_EQ(connect(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }

    // What the board answers: "ok", or "error" and why.
    std::string ask(const std::string &request)
    {
        send(request + "\n");
        return answer();
    }

    void send(const std::string &text)
    {
        EXPECT_EQ(::send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }

    std::string answer()
    {
        const std::string head = take_until([](const std::string &text) { return text.ends_with('\n'); });
        const std::size_t blank = std::min(head.find(' '), head.size());
        const std::size_t size = std::strtoul(head.c_str() + blank, nullptr, 10);
        const std::string text =
            take_until([size](const std::string &so_far) { return so_far.size() == size; });
        return head.substr(0, blank) + (text.empty() ? "" : " " + text);
    }

private:
    std::string take_until(const std::function<bool(const std::string &)> &enough) const
    {
        std::string text;
        for (char byte = 0; !enough(text) && recv(fd_.get(), &byte, 1, 0) == 1;) {
            text += byte;
        }
        return text;
    }

    kiv::unique_fd fd_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

kiv::unique_fd open_node(int pin, const std::string &name, int flags = O_RDONLY)
{
    const std::string path = "/sys/user_hw/pins/gpios/gpio_" + std::to_string(pin) + "/" + name;
    return kiv::unique_fd(open(path.c_str(), flags | O_CLOEXEC));
}

void write_node(int pin, const std::string &name, const std::string &text)
{
    const kiv::unique_fd node = open_node(pin, name, O_RDWR);
    EXPECT_EQ(write(node.get(), text.data(), text.size()), static_cast<ssize_t>(text.size())) << name;
}

void enable_interrupt(int pin)
{
    write_node(pin, "irqrequest", std::string("1\0", 2));
    write_node(pin, "irqconfig", "2" + std::string(63, '\0'));
    write_node(pin, "irqmask", std::string("0\0", 2));
}

std::string read_again(const kiv::unique_fd &node)
{
    char text[20] = {};
    EXPECT_EQ(lseek(node.get(), 0, SEEK_SET), 0);
    const ssize_t got = read(node.get(), text, sizeof text);
    return got >= 0 ? std::string(text, static_cast<std::size_t>(got)) : "errno " + std::to_string(errno);
}

// The events that come before a time limit.
short wait_for_events(const kiv::unique_fd &node, int limit_ms = deadline_ms)
{
    pollfd entry = {node.get(), POLLIN | POLLPRI, 0};
    return poll(&entry, 1, limit_ms) > 0 ? entry.revents : short{0};
}

// Takes interrupts, as they come, until all that are expected have been taken, by this or other threads.
// @return How often it was woken, or -1 when a wake-up was missed.
int take_interrupts(const kiv::unique_fd &irq, std::atomic<long> &taken, long expected)
{
    int woken = 0;
    while (taken < expected) {
        pollfd entry = {irq.get(), POLLPRI, 0};
        if (poll(&entry, 1, deadline_ms) != 1 || (entry.revents & POLLERR) != 0) {
            return taken < expected ? -1 : woken;
        }
        ++woken;
        taken += std::atol(read_again(irq).c_str());
    }
    return woken;
}

bool becomes_true(const std::function<bool()> &condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadline_ms);
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    return condition();
}

class GpioBoard : public testing::Test
{
protected:
    static bool is_on_board() { return std::getenv("BOARD_GPIO_TEST") != nullptr; }

    void SetUp() override
    {
        if (is_on_board()) {
            return;
        }
        const zol_test::command_result check = zol_test::run_command({KIVBOARD, "check"});
        if (check.status != 0) {
            GTEST_SKIP() << check.err;
        }
    }

    static void on_board(void (*body)())
    {
        if (is_on_board()) {
            body();
            return;
        }
        const zol_test::scratch_directory scratch;
        const testing::TestInfo &test = *testing::UnitTest::GetInstance()->current_test_info();
        const zol_test::command_result result = zol_test::run_command(
            {KIVBOARD, "run", "--board", scratch.write("board.xml", board_xml), "--socket",
             scratch.path() / "socket", "--", "/usr/bin/env", "BOARD_GPIO_TEST=1",
             std::filesystem::read_symlink("/proc/self/exe"),
             std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name()});
        EXPECT_EQ(result.status, 0) << result.out << result.err;
        EXPECT_NE(result.out.find("[  PASSED  ] 1 test."), std::string::npos) << result.out;
    }
};

TEST_F(GpioBoard, LevelsAreWrittenAndReadBack)
{
    on_board([] {
        bench bench;
        const kiv::unique_fd set = open_node(17, "level", O_RDWR);
        const kiv::unique_fd get = open_node(17, "level");
        for (const char level : {'1', '0', '1'}) { // at offsets 0, 2 and 4
            const char text[] = {level, '\0'};
            EXPECT_EQ(write(set.get(), text, sizeof text), 2);
            EXPECT_EQ(read_again(get), std::string(1, level) + "\n");
        }
        char byte = 0;
        EXPECT_EQ(read(get.get(), &byte, 1), 0) << "behind the end";
        EXPECT_EQ(bench.ask("level 17"), "ok 1\n");
        EXPECT_EQ(bench.ask("level 17 0"), "ok");
        EXPECT_EQ(read_again(get), "0\n");
        EXPECT_EQ(write(set.get(), "high", 4), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_FALSE(open_node(301, "level").is_open());
        EXPECT_EQ(errno, ENOENT);
        EXPECT_TRUE(
            kiv::unique_fd(open("/sys/user_hw/pins/gpios/gpio_5/level", O_WRONLY | O_TRUNC)).is_open())
            << "as the shell does";
    });
}

TEST_F(GpioBoard, InterruptsWakeWhoWaits)
{
    on_board([] {
        bench bench;
        const kiv::unique_fd irq = open_node(17, "irq");
        EXPECT_EQ(bench.ask("raise 17"), "ok dropped, not requested\n");
        write_node(17, "irqrequest", "1");
        EXPECT_EQ(bench.ask("raise 17"), "ok dropped, masked\n");
        EXPECT_EQ(wait_for_events(irq, 0), 0);
        EXPECT_EQ(read_again(irq), "0\n");
        enable_interrupt(17);
        std::thread other([&bench] {
            EXPECT_EQ(bench.ask("raise 17"), "ok");
            EXPECT_EQ(bench.ask("raise 17 4"), "ok");
        });
        EXPECT_EQ(wait_for_events(irq), POLLPRI);
        other.join();
        EXPECT_EQ(wait_for_events(irq, 0), POLLPRI) << "until it is taken";
        EXPECT_EQ(read_again(irq), "5\n");
        EXPECT_EQ(wait_for_events(irq, 0), 0);
        bench.ask("raise 17 123");
        char digits[4] = {};
        for (char &digit : digits) {
            EXPECT_EQ(pread(irq.get(), &digit, 1, &digit - digits), 1);
        }
        EXPECT_EQ(std::string(digits, 4), "123\n") << "read in pieces";
        write_node(17, "level", "1");
        EXPECT_EQ(read_again(irq), "0\n") << "driving the pin is no interrupt";
        bench.ask("level 17 1");
        bench.ask("level 17 0");
        EXPECT_EQ(read_again(irq), "1\n") << "one change";
    });
}

TEST_F(GpioBoard, NoWakeUpIsLost)
{
    on_board([] {
        bench bench;
        enable_interrupt(17);
        const kiv::unique_fd irq = open_node(17, "irq");
        std::atomic<long> taken = 0;
        std::thread taker([&] { EXPECT_GE(take_interrupts(irq, taken, 10'000), 0); });
        for (long i = 0; i < 10'000; ++i) {
            EXPECT_EQ(bench.ask("raise 17"), "ok");
        }
        taker.join();
        EXPECT_EQ(taken, 10'000);

        // One at a time, so that each needs a wake-up of its own.
        taken = 0;
        std::thread patient([&] { EXPECT_EQ(take_interrupts(irq, taken, 2000), 2000); });
        for (long i = 0; i < 2000 && !HasFailure(); ++i) {
            bench.ask("raise 17");
            EXPECT_TRUE(becomes_true([&] { return taken > i; })) << i;
        }
        patient.join();
    });
}

TEST_F(GpioBoard, AllWhoWaitAreWoken)
{
    on_board([] {
        bench bench;
        enable_interrupt(17);
        const kiv::unique_fd shared = open_node(17, "irq");
        const kiv::unique_fd own = open_node(17, "irq");
        const kiv::unique_fd epoll(epoll_create1(EPOLL_CLOEXEC));
        epoll_event wanted = {EPOLLPRI | EPOLLET, {}};
        EXPECT_EQ(epoll_ctl(epoll.get(), EPOLL_CTL_ADD, own.get(), &wanted), 0);
        std::atomic<int> woken = 0;
        std::vector<std::thread> waiting;
        for (const kiv::unique_fd *const node : {&shared, &shared, &own}) {
            waiting.emplace_back([&woken, node] { woken += wait_for_events(*node) == POLLPRI ? 1 : 0; });
        }
        waiting.emplace_back([&woken, &epoll] {
            epoll_event event = {};
            woken += epoll_wait(epoll.get(), &event, 1, deadline_ms) == 1 && event.events == EPOLLPRI ? 1 : 0;
        });
        bench.ask("raise 17");
        for (std::thread &each : waiting) {
            each.join();
        }
        EXPECT_EQ(woken, 4) << "nobody has taken the interrupt";

        std::atomic<long> taken = 0;
        std::vector<std::thread> takers;
        for (const kiv::unique_fd *const node : {&shared, &shared, &own}) {
            takers.emplace_back([&taken, node] { EXPECT_GE(take_interrupts(*node, taken, 1002), 0); });
        }
        for (int i = 0; i < 1001; ++i) {
            bench.ask("raise 17");
        }
        EXPECT_TRUE(becomes_true([&taken] { return taken >= 1002; }));
        bench.ask("fail 17 irq poll"); // ends the waiting of those who did not take the last one
        for (std::thread &each : takers) {
            each.join();
        }
        EXPECT_EQ(taken, 1002);
    });
}

TEST_F(GpioBoard, NodesFailAndAreMended)
{
    on_board([] {
        bench bench;
        const kiv::unique_fd broken = open_node(300, "irq");
        EXPECT_EQ(wait_for_events(broken), POLLERR) << "from the start";
        EXPECT_EQ(wait_for_events(broken), POLLERR) << "and on";
        EXPECT_FALSE(open_node(300, "irqmask", O_RDWR).is_open());
        EXPECT_EQ(errno, EIO);

        enable_interrupt(17);
        const kiv::unique_fd irq = open_node(17, "irq");
        std::thread waiting([&irq] { EXPECT_EQ(wait_for_events(irq), POLLERR); });
        EXPECT_EQ(bench.ask("fail 17 irq poll"), "ok");
        waiting.join();
        EXPECT_EQ(bench.ask("fail 17 irq read"), "ok");
        EXPECT_EQ(read_again(irq), "errno 5");
        EXPECT_EQ(bench.ask("mend 17"), "ok");
        EXPECT_EQ(wait_for_events(irq, 0), 0);
        EXPECT_EQ(read_again(irq), "0\n");
        const kiv::unique_fd level = open_node(17, "level", O_RDWR);
        EXPECT_EQ(bench.ask("fail 17 level write"), "ok");
        EXPECT_EQ(write(level.get(), "1", 1), -1);
        EXPECT_EQ(errno, EIO);
    });
}

TEST_F(GpioBoard, WaitingCostsTheBoardNothing)
{
    on_board([] {
        // How often the board, which has started this process, has gone to sleep: at most once per request.
        const auto sleeps = [] {
            std::ifstream status("/proc/" + std::to_string(getppid()) + "/status");
            for (std::string line; std::getline(status, line);) {
                if (line.starts_with("voluntary_ctxt_switches:")) {
                    return std::stol(line.substr(line.find(':') + 1));
                }
            }
            return -1L;
        };
        std::vector<kiv::unique_fd> nodes;
        std::vector<pollfd> entries;
        for (int pin = 0; pin < 20; ++pin) {
            nodes.push_back(open_node(pin, "irq"));
            entries.push_back({nodes.back().get(), POLLPRI, 0});
        }
        const long before = sleeps();
        ASSERT_GE(before, 0);
        EXPECT_EQ(poll(entries.data(), entries.size(), 500), 0);
        // Before and after the wait the kernel asks once for each; in between nobody does.
        EXPECT_LE(sleeps() - before, 2 * static_cast<long>(entries.size()) + 10);
    });
}

TEST_F(GpioBoard, OneConnectionCarriesManyRequests)
{
    on_board([] {
        bench bench;
        enable_interrupt(5);
        bench.send("raise 5\nraise 5 2\nlevel 99");
        EXPECT_EQ(bench.answer(), "ok");
        EXPECT_EQ(bench.answer(), "ok");
        bench.send("99\nraise\n\njournal 5\n");
        EXPECT_EQ(bench.answer(), "error there is no pin 9999\n");
        EXPECT_EQ(bench.answer(), "error raise needs PIN [COUNT]\n");
        EXPECT_EQ(bench.answer(), "error the board does not know this request\n");
        EXPECT_EQ(bench.answer(), "error journal knows --follow only\n");
        EXPECT_EQ(read_again(open_node(5, "irq")), "3\n");

        const auto shell = [](const std::string &line) {
            return zol_test::run_command({"/bin/sh", "-c", "kivboard='" KIVBOARD "'; " + line});
        };
        const zol_test::command_result batch =
            shell("printf 'raise 5\\n\\nraise 6\\nraise 999\\nlevel 5\\n' | $kivboard -");
        EXPECT_EQ(batch.status, 1);
        EXPECT_EQ(batch.out, "dropped, not requested\n0\n");
        EXPECT_EQ(batch.err, "kivboard: there is no pin 999\n");
        const zol_test::command_result misused = shell("$kivboard raise 5 1 2");
        EXPECT_EQ(misused.status, 2);
        EXPECT_EQ(misused.err, "kivboard: raise needs PIN [COUNT]; see kivboard --help\n");
        EXPECT_EQ(shell("$kivboard level 5x; $kivboard raise '5\nraise 5'").status, 1);
        const std::string journal = shell("$kivboard journal").out;
        EXPECT_TRUE(
            journal.ends_with("gpio_5 irqconfig W[2] ok\n3 gpio_5 irqmask W[0] ok\n"
                              "4 gpio_5 raise 1: counted, 1 pending\n5 gpio_5 raise 2: counted, 3 pending\n"
                              "6 gpio_5 irq R[3] ok\n7 gpio_5 raise 1: counted, 1 pending\n"
                              "8 gpio_6 raise 1: dropped, not requested\n"))
            << journal;
    });
}

} // namespace
