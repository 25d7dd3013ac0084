// Polls the pins of the virtual board through the kernel. Runs on a board: kivboard run -- pin_poll_tests.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "board_connection.h"
#include "common/unique_fd.h"
#include "support/eventually.h"

using kiv::unique_fd;

namespace
{

constexpr int deadline_ms = 20'000; // ends a test that hangs

unique_fd open_node(int pin, const std::string &name, int flags = O_RDONLY)
{
    const std::string path = "/sys/user_hw/pins/gpios/gpio_" + std::to_string(pin) + "/" + name;
    return unique_fd(open(path.c_str(), flags | O_CLOEXEC));
}

// @return 0, or the error.
int write_node(int pin, const std::string &name, const std::string &text)
{
    const unique_fd node = open_node(pin, name, O_WRONLY | O_TRUNC); // as the shell does
    return write(node.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : errno;
}

std::string read_again(const unique_fd &node)
{
    char text[20] = {};
    EXPECT_EQ(lseek(node.get(), 0, SEEK_SET), 0);
    const ssize_t got = read(node.get(), text, sizeof text);
    return got >= 0 ? std::string(text, static_cast<std::size_t>(got)) : "errno " + std::to_string(errno);
}

short wait_for_events(const unique_fd &node, int limit_ms = deadline_ms)
{
    pollfd entry = {node.get(), POLLIN | POLLPRI, 0};
    return poll(&entry, 1, limit_ms) > 0 ? entry.revents : short{0};
}

class PinPoll : public testing::Test
{
protected:
    PinPoll()
    {
        EXPECT_EQ(write_node(17, "irqrequest", {"1\0", 2}), 0);
        EXPECT_EQ(write_node(17, "irqconfig", "2" + std::string(63, '\0')), 0);
        EXPECT_EQ(write_node(17, "irqmask", {"0\0", 2}), 0);
    }

    void tell(const std::string &request) { EXPECT_EQ(bench_.ask(request), 0) << request; }

    const unique_fd irq_ = open_node(17, "irq");
    kivboard::board_connection bench_{std::getenv("KIVBOARD_SOCKET")}; // of the board that runs the test
};

// In bursts, and one at a time: then each needs a wake-up of its own.
TEST_F(PinPoll, LosesNoWakeUp)
{
    for (const bool is_patient : {false, true}) {
        const long interrupts = is_patient ? 2000 : 10'000;
        std::atomic<long> taken = 0;
        std::thread taker([&] {
            while (taken < interrupts && wait_for_events(irq_) == POLLPRI) {
                taken += std::atol(read_again(irq_).c_str());
            }
        });
        for (long i = 0; i < interrupts && !HasFailure(); ++i) {
            tell("raise 17");
            EXPECT_TRUE(!is_patient || zol_test::eventually([&] { return taken > i; })) << i;
        }
        taker.join();
        EXPECT_EQ(taken, interrupts);
    }
}

TEST_F(PinPoll, WakesAllWaiters)
{
    const unique_fd another = open_node(17, "irq");
    const unique_fd epoll(epoll_create1(EPOLL_CLOEXEC));
    epoll_event wanted = {EPOLLPRI | EPOLLET, {}};
    EXPECT_EQ(epoll_ctl(epoll.get(), EPOLL_CTL_ADD, another.get(), &wanted), 0);
    std::vector<std::thread> threads;
    for (const unique_fd *const node : {&irq_, &irq_, &another}) {
        threads.emplace_back([node] { EXPECT_EQ(wait_for_events(*node), POLLPRI); });
    }
    threads.emplace_back([&epoll] {
        epoll_event event = {};
        EXPECT_EQ(epoll_wait(epoll.get(), &event, 1, deadline_ms), 1);
        EXPECT_EQ(event.events, EPOLLPRI);
    });
    tell("raise 17");
    for (std::thread &each : threads) {
        each.join(); // nobody has taken the interrupt
    }
    EXPECT_EQ(read_again(irq_), "1\n");
}

TEST_F(PinPoll, NodesFailAndWorkAgain)
{
    EXPECT_EQ(wait_for_events(open_node(65, "irq")), POLLERR) << "from the start";
    std::thread waiting([this] { EXPECT_EQ(wait_for_events(irq_), POLLERR); });
    tell("fail 17 irq poll");
    waiting.join();
    tell("raise 17 12");
    tell("fail 17 irq read");
    EXPECT_EQ(read_again(irq_), "errno 5");
    tell("mend 17 irq read");
    EXPECT_EQ(wait_for_events(irq_), POLLERR) << "only reading was mended";
    EXPECT_EQ(read_again(irq_), "12\n") << "a read that failed took nothing";
    tell("fail 17 level write");
    EXPECT_EQ(write_node(17, "level", "1"), EIO);
    tell("mend 17");
    EXPECT_EQ(wait_for_events(irq_, 0), 0);
    EXPECT_EQ(write_node(17, "level", "1"), 0);
}

} // namespace
