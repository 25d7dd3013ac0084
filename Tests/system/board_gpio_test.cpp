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
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_fd.h"
#include "support/eventually.h"
#include "system/on_board.h"

using zol_test::eventually;

namespace
{

constexpr char board_xml[] = R"(<board>
  <pins first="0" last="299"/>
  <pin number="300"><fails node="irq" operation="poll"/><fails node="irqmask" operation="open"/></pin>
</board>)";

constexpr int deadline_ms = 20'000; // what comes comes at once; this only ends a test that hangs

// The bench, over one connection.
class board_bench
{
public:
    // A request that is to be done without a word, as the next one shows.
    void tell(const std::string &request)
    {
        talk_.say(request + "\nraise 299\n");
        EXPECT_EQ(talk_.hear_until("dropped, not requested\n"), "") << request;
    }

    std::string ask(const std::string &request)
    {
        talk_.say(request + "\n");
        return talk_.hear_until("\n");
    }

private:
    zol_test::conversation talk_{{KIVBOARD, "-"}};
};

kiv::unique_fd open_node(int pin, const std::string &name, int flags = O_RDONLY)
{
    const std::string path = "/sys/user_hw/pins/gpios/gpio_" + std::to_string(pin) + "/" + name;
    return kiv::unique_fd(open(path.c_str(), flags | O_CLOEXEC));
}

// @return 0, or the error.
int write_node(int pin, const std::string &name, const std::string &text)
{
    const kiv::unique_fd node = open_node(pin, name, O_WRONLY | O_TRUNC); // as the shell does
    return write(node.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : errno;
}

void enable_interrupt(int pin)
{
    EXPECT_EQ(write_node(pin, "irqrequest", std::string("1\0", 2)), 0);
    EXPECT_EQ(write_node(pin, "irqconfig", "2" + std::string(63, '\0')), 0);
    EXPECT_EQ(write_node(pin, "irqmask", std::string("0\0", 2)), 0);
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
    for (; taken < expected; ++woken) {
        if (wait_for_events(irq) != POLLPRI) {
            return taken < expected ? -1 : woken;
        }
        taken += std::atol(read_again(irq).c_str());
    }
    return woken;
}

class GpioBoard : public zol_test::OnBoardTest
{
protected:
    GpioBoard() : OnBoardTest(board_xml) {}

    static bool is_on_board() { return std::getenv("BOARD_GPIO_TEST") != nullptr; }

    void SetUp() override
    {
        if (!is_on_board()) {
            OnBoardTest::SetUp();
        }
    }

    void run_on_board(void (*body)(board_bench &bench))
    {
        if (is_on_board()) {
            board_bench bench;
            body(bench);
            return;
        }
        const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
        const zol_test::command_result result =
            on_board("BOARD_GPIO_TEST=1 exec " + std::filesystem::read_symlink("/proc/self/exe").string() +
                     " --gtest_filter=GpioBoard." + name);
        EXPECT_EQ(result.status, 0) << result.out << result.err;
        EXPECT_TRUE(says(result, "[  PASSED  ] 1 test.")) << result.out;
    }
};

TEST_F(GpioBoard, LevelsAreWrittenAndInterruptsTaken)
{
    run_on_board([](board_bench &bench) {
        const kiv::unique_fd set = open_node(17, "level", O_RDWR);
        const kiv::unique_fd get = open_node(17, "level");
        for (const char level : {'1', '0', '1'}) { // at offsets 0, 2 and 4
            const char text[] = {level, '\0'};
            EXPECT_EQ(write(set.get(), text, sizeof text), 2);
            EXPECT_EQ(read_again(get), std::string(1, level) + "\n");
        }
        char byte = 0;
        EXPECT_EQ(read(get.get(), &byte, 1), 0) << "behind the end";
        EXPECT_EQ(bench.ask("level 17"), "1");
        bench.tell("level 17 0");
        EXPECT_EQ(read_again(get), "0\n");
        EXPECT_EQ(write_node(17, "level", "high"), EINVAL);
        EXPECT_FALSE(open_node(301, "level").is_open());
        EXPECT_EQ(errno, ENOENT);

        const kiv::unique_fd irq = open_node(17, "irq");
        EXPECT_EQ(bench.ask("raise 17"), "dropped, not requested");
        EXPECT_EQ(wait_for_events(irq, 0), 0);
        enable_interrupt(17);
        bench.tell("raise 17 123");
        EXPECT_EQ(wait_for_events(irq, 0), POLLPRI);
        char digits[4] = {};
        for (char &digit : digits) {
            EXPECT_EQ(pread(irq.get(), &digit, 1, &digit - digits), 1);
        }
        EXPECT_EQ(std::string(digits, 4), "123\n") << "read in pieces";
        EXPECT_EQ(wait_for_events(irq, 0), 0);
        bench.tell("level 17 1");
        EXPECT_EQ(read_again(irq), "1\n") << "one change";
    });
}

TEST_F(GpioBoard, NoWakeUpIsLost)
{
    run_on_board([](board_bench &bench) {
        enable_interrupt(17);
        const kiv::unique_fd irq = open_node(17, "irq");
        std::atomic<long> taken = 0;
        std::thread taker([&] { EXPECT_GE(take_interrupts(irq, taken, 10'000), 0); });
        for (int i = 0; i < 2000; ++i) {
            bench.tell("raise 17\nraise 17\nraise 17\nraise 17\nraise 17");
        }
        taker.join();
        EXPECT_EQ(taken, 10'000);

        // One at a time, so that each needs a wake-up of its own.
        taken = 0;
        std::thread patient([&] { EXPECT_EQ(take_interrupts(irq, taken, 2000), 2000); });
        for (long i = 0; i < 2000 && !HasFailure(); ++i) {
            bench.tell("raise 17");
            EXPECT_TRUE(eventually([&] { return taken > i; })) << i;
        }
        patient.join();
    });
}

TEST_F(GpioBoard, AllWhoWaitAreWoken)
{
    run_on_board([](board_bench &bench) {
        enable_interrupt(17);
        const kiv::unique_fd shared = open_node(17, "irq");
        const kiv::unique_fd own = open_node(17, "irq");
        const kiv::unique_fd epoll(epoll_create1(EPOLL_CLOEXEC));
        epoll_event wanted = {EPOLLPRI | EPOLLET, {}};
        EXPECT_EQ(epoll_ctl(epoll.get(), EPOLL_CTL_ADD, own.get(), &wanted), 0);
        std::vector<std::thread> threads;
        for (const kiv::unique_fd *const node : {&shared, &shared, &own}) {
            threads.emplace_back([node] { EXPECT_EQ(wait_for_events(*node), POLLPRI); });
        }
        threads.emplace_back([&epoll] {
            epoll_event event = {};
            EXPECT_EQ(epoll_wait(epoll.get(), &event, 1, deadline_ms), 1);
            EXPECT_EQ(event.events, EPOLLPRI);
        });
        bench.tell("raise 17");
        for (std::thread &each : threads) {
            each.join(); // nobody has taken the interrupt
        }
    });
}

TEST_F(GpioBoard, NodesFailAndAreMended)
{
    run_on_board([](board_bench &bench) {
        EXPECT_EQ(wait_for_events(open_node(300, "irq")), POLLERR) << "from the start";
        EXPECT_FALSE(open_node(300, "irqmask", O_RDWR).is_open());
        EXPECT_EQ(errno, EIO);
        enable_interrupt(17);
        const kiv::unique_fd irq = open_node(17, "irq");
        std::thread waiting([&irq] { EXPECT_EQ(wait_for_events(irq), POLLERR); });
        bench.tell("fail 17 irq poll");
        waiting.join();
        bench.tell("raise 17 12");
        bench.tell("fail 17 irq read");
        EXPECT_EQ(read_again(irq), "errno 5");
        bench.tell("mend 17 irq read");
        EXPECT_EQ(wait_for_events(irq), POLLERR) << "only reading was mended";
        EXPECT_EQ(read_again(irq), "12\n") << "a read that failed took nothing";
        bench.tell("fail 17 level write");
        EXPECT_EQ(write_node(17, "level", "1"), EIO);
        bench.tell("mend 17");
        EXPECT_EQ(wait_for_events(irq, 0), 0);
        EXPECT_EQ(write_node(17, "level", "1"), 0);
    });
}

TEST_F(GpioBoard, OneConnectionCarriesManyRequests)
{
    run_on_board([](board_bench &) {
        sockaddr_un address = {AF_UNIX, ""};
        std::strncpy(address.sun_path, std::getenv("KIVBOARD_SOCKET"), sizeof address.sun_path - 1);
        const kiv::unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        for (const std::string requests : {"level 5\nlevel 5 1\nlevel 5\nlevel 99", "99\nraise 5\n"}) {
            EXPECT_EQ(send(fd.get(), requests.data(), requests.size(), 0),
                      static_cast<ssize_t>(requests.size()));
        }
        const std::string expected = "ok 2\n0\nok 0\nok 2\n1\nerror 21\nthere is no pin 9999\n"
                                     "ok 23\ndropped, not requested\n";
        std::string answers(expected.size(), '\0');
        recv(fd.get(), answers.data(), answers.size(), MSG_WAITALL);
        EXPECT_EQ(answers, expected);
    });
}

TEST_F(GpioBoard, CommandsOfTheBench)
{
    const zol_test::command_result result = on_board(
        "printf 'raise 6\\n\\nraise 999\\nraise\\nraize 6\\njournal 5\\nlevel 5\\n' | $kivboard -; echo $?; "
        "$kivboard raise 5 1 2; echo $?; $kivboard raise '5\nraise 5'; echo $?; $kivboard journal");
    EXPECT_EQ(result.out, "dropped, not requested\n0\n1\n2\n1\n1 gpio_6 raise 1: dropped, not requested\n");
    EXPECT_TRUE(result.err.starts_with("kivboard: there is no pin 999\n"
                                       "kivboard: raise needs PIN [COUNT]\n"
                                       "kivboard: the board does not know this request\n"
                                       "kivboard: journal knows --follow only\n"
                                       "kivboard: raise needs PIN [COUNT]; see kivboard --help\n"))
        << result.err;
}

} // namespace
