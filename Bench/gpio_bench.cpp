// Pins of the virtual board: levels beside bare system calls on the same node, interrupts beside a bare
// poll() loop. Board and benchmark share one core.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "common/unique_fd.h"
#include "one_core.h"
#include "real_sysfs.h"
#include "started_library.h"
#include "table.h"
#include "zol/zol.h"

namespace
{

constexpr int first_pin = 0;
constexpr char no_board[] = "no pins; run on the virtual board with Bench/kiv_board.xml";

// Allocated pins.
class pins
{
public:
    pins(benchmark::State &state, int first, int count) : library_("/dev/null"), first_(first)
    {
        for (count_ = 0; count_ < count; ++count_) {
            if (!library_.is_started() || kiv_gpio_request(first_ + count_, "bench") != KIV_OK) {
                state.SkipWithError(no_board);
                return;
            }
        }
    }
    ~pins()
    {
        while (count_ > 0) {
            kiv_gpio_free(first_ + --count_);
        }
    }
    pins(const pins &) = delete;
    pins &operator=(const pins &) = delete;

private:
    zol_bench::on_one_core pinned_; // which is the board's
    zol_bench::started_library library_;
    int first_;
    int count_;
};

kiv::unique_fd open_node(benchmark::State &state, const char *node, int flags)
{
    const std::string path = "/sys/user_hw/pins/gpios/gpio_" + std::to_string(first_pin) + "/" + node;
    kiv::unique_fd fd(open(path.c_str(), flags | O_CLOEXEC));
    if (!fd.is_open()) {
        state.SkipWithError(no_board);
    }
    return fd;
}

int read_number(int fd)
{
    char text[21];
    if (lseek(fd, 0, SEEK_SET) != 0) {
        return -1;
    }
    const ssize_t got = read(fd, text, sizeof text - 1);
    text[got > 0 ? got : 0] = '\0';
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

// The first one of the pins, which is the last of the table.
template <int first>
void get_ours(benchmark::State &state)
{
    const pins allocated(state, first, static_cast<int>(state.range(0)));
    int value = 0;
    const zol_bench::allocation_count allocations;
    for (auto _ : state) {
        benchmark::DoNotOptimize(kiv_gpio_get(first, &value));
    }
    if (allocations.so_far() != 0) {
        state.SkipWithError("reading a level allocates");
    }
}

void get_bare(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    const kiv::unique_fd level = open_node(state, "level", O_RDONLY);
    for (auto _ : state) {
        benchmark::DoNotOptimize(read_number(level.get()) != 0);
    }
}

// In a process with the same threads: the kernel's part is longer than in one with a single thread.
void get_bare_real(benchmark::State &state)
{
    const pins allocated(state, zol_bench::first_real_pin, 1);
    const kiv::unique_fd level(open(zol_bench::real_attribute, O_RDONLY | O_CLOEXEC));
    for (auto _ : state) {
        benchmark::DoNotOptimize(read_number(level.get()) != 0);
    }
}

void set_ours(benchmark::State &state)
{
    const pins allocated(state, first_pin, static_cast<int>(state.range(0)));
    const zol_bench::allocation_count allocations;
    for (auto _ : state) {
        benchmark::DoNotOptimize(kiv_gpio_set(first_pin, 1));
    }
    if (allocations.so_far() != 0) {
        state.SkipWithError("setting a level allocates");
    }
}

void set_bare(benchmark::State &state)
{
    const zol_bench::on_one_core pinned;
    const kiv::unique_fd level = open_node(state, "level", O_RDWR);
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(level.get(), "1", 2));
    }
}

// The bench side of the board.
class bench_side
{
public:
    explicit bench_side(benchmark::State &state)
    {
        const char *const path = std::getenv("KIVBOARD_SOCKET");
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path != nullptr ? path : "", sizeof address.sun_path - 1);
        if (connect(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
            state.SkipWithError(no_board);
        }
        for (int i = 0; i < most_at_once; ++i) {
            requests_ += "raise " + std::to_string(first_pin) + "\n";
        }
        request_size_ = requests_.size() / most_at_once;
    }

    /// Raises so many interrupts, one by one, in one go.
    bool raise(std::size_t count)
    {
        constexpr char answer[] = "ok 0\n";
        std::size_t missing = count * (sizeof answer - 1);
        const std::size_t size = count * request_size_;
        if (send(socket_.get(), requests_.data(), size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) {
            return false;
        }
        while (missing > 0) {
            char answers[4096];
            const ssize_t got = recv(socket_.get(), answers, std::min(missing, sizeof answers), 0);
            if (got <= 0 || answers[0] == 'e') {
                return false;
            }
            missing -= static_cast<std::size_t>(got);
        }
        return true;
    }

    static constexpr int most_at_once = 1000;

private:
    kiv::unique_fd socket_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::string requests_;
    std::size_t request_size_ = 0;
};

// The end of an interrupt's way: counts arrivals, and wakes the waiter.
struct arrivals {
    sem_t waiter;
    std::atomic<long> count{0};
    std::atomic<long> awaited{1};

    arrivals() { sem_init(&waiter, 0, 0); }
    ~arrivals() { sem_destroy(&waiter); }
    arrivals(const arrivals &) = delete;
    arrivals &operator=(const arrivals &) = delete;

    void arrive()
    {
        if (++count == awaited) {
            sem_post(&waiter);
        }
    }
    bool await()
    {
        timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 10;
        return sem_timedwait(&waiter, &deadline) == 0;
    }
};

template <typename Receiver>
void interrupts(benchmark::State &state)
{
    const auto at_once = static_cast<std::size_t>(state.range(0));
    arrivals arrived;
    Receiver receiver(state, arrived);
    bench_side side(state);
    arrived.awaited = 1;
    if (!side.raise(1) || !arrived.await()) { // the first may allocate
        state.SkipWithError(no_board);
    }
    const zol_bench::allocation_count allocations;
    for (auto _ : state) {
        arrived.awaited = arrived.count + static_cast<long>(at_once);
        if (!side.raise(at_once) || !arrived.await()) {
            state.SkipWithError("an interrupt is lost");
            break;
        }
    }
    if (allocations.so_far() != 0) {
        state.SkipWithError("an interrupt allocates");
    }
}

class callback_receiver
{
public:
    callback_receiver(benchmark::State &state, arrivals &arrived) : allocated_(state, first_pin, 1)
    {
        kiv_gpio_register_callback(first_pin, KIV_GPIO_EDGE, KIV_GPIO_EDGE_RISING, 0, on_interrupt,
                                   reinterpret_cast<uintptr_t>(&arrived));
    }
    ~callback_receiver() { kiv_gpio_unregister_callback(first_pin); }
    callback_receiver(const callback_receiver &) = delete;
    callback_receiver &operator=(const callback_receiver &) = delete;

private:
    static int on_interrupt(int32_t, uintptr_t arrived)
    {
        reinterpret_cast<arrivals *>(arrived)->arrive();
        return 0;
    }

    pins allocated_;
};

// The loop that an application without the library would write.
class bare_receiver
{
public:
    bare_receiver(benchmark::State &state, arrivals &arrived)
        : irq_(open_node(state, "irq", O_RDONLY)), request_(open_node(state, "irqrequest", O_RDWR)),
          config_(open_node(state, "irqconfig", O_RDWR)), mask_(open_node(state, "irqmask", O_RDWR))
    {
        const bool written = write(request_.get(), "1", 2) == 2 && write(config_.get(), "2", 2) == 2 &&
                             write(mask_.get(), "0", 2) == 2 && pipe(stop_) == 0;
        if (!written) {
            state.SkipWithError(no_board);
        }
        thread_ = std::thread([this, &arrived] { receive(arrived); });
    }
    ~bare_receiver()
    {
        close(stop_[1]);
        thread_.join();
        close(stop_[0]);
    }
    bare_receiver(const bare_receiver &) = delete;
    bare_receiver &operator=(const bare_receiver &) = delete;

private:
    void receive(arrivals &arrived) const
    {
        pollfd fds[] = {{stop_[0], POLLIN, 0}, {irq_.get(), POLLPRI, 0}};
        while (poll(fds, 2, -1) > 0 && fds[0].revents == 0) {
            for (int count = read_number(irq_.get()); count > 0; --count) {
                arrived.arrive();
            }
        }
    }

    zol_bench::on_one_core pinned_;
    kiv::unique_fd irq_;
    kiv::unique_fd request_;
    kiv::unique_fd config_;
    kiv::unique_fd mask_;
    int stop_[2] = {-1, -1};
    std::thread thread_;
};

// How often the other threads of this process have been woken up.
long wakeups_of_others()
{
    long sum = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == std::to_string(gettid())) {
            continue;
        }
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("voluntary_ctxt_switches:")) {
                sum += std::stol(line.substr(line.find(':') + 1));
            }
        }
    }
    return sum;
}

int ignore(int32_t, uintptr_t)
{
    return 0;
}

void idle(benchmark::State &state)
{
    constexpr int watched = 64;
    const pins allocated(state, first_pin, watched);
    for (int i = 0; i < watched; ++i) {
        kiv_gpio_register_callback(first_pin + i, KIV_GPIO_EDGE, KIV_GPIO_EDGE_RISING, 0, ignore, 0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // the last poll() is on its way
    const long before = wakeups_of_others();
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::seconds(10));
    }
    if (wakeups_of_others() != before) {
        state.SkipWithError("the listener wakes up although nothing happens");
    }
}

// A trip through the board takes long and varies much: many short repetitions find the undisturbed ones.
void on_the_board(benchmark::internal::Benchmark *benchmark)
{
    benchmark->Repetitions(100)->Iterations(200);
}

void with_many_pins(benchmark::internal::Benchmark *benchmark)
{
    benchmark->Arg(1)->Arg(32)->Arg(256)->Repetitions(40)->Iterations(400);
}

BENCHMARK(get_ours<first_pin>)->Name("gpio/get/ours")->Apply(with_many_pins);
BENCHMARK(get_bare)->Name("gpio/get/bare")->Apply(on_the_board);
BENCHMARK(get_ours<zol_bench::first_real_pin>)->Name("gpio/sysfs/ours")->Arg(1)->Arg(16)->Arg(256);
BENCHMARK(get_bare_real)->Name("gpio/sysfs/bare");
BENCHMARK(set_ours)->Name("gpio/set/ours")->Apply(with_many_pins);
BENCHMARK(set_bare)->Name("gpio/set/bare")->Apply(on_the_board);
BENCHMARK(interrupts<callback_receiver>)->Name("gpio/interrupt/ours")->Arg(1)->Apply(on_the_board);
BENCHMARK(interrupts<bare_receiver>)->Name("gpio/interrupt/bare")->Arg(1)->Apply(on_the_board);
BENCHMARK(interrupts<callback_receiver>)->Name("gpio/burst/ours")->Arg(bench_side::most_at_once);
BENCHMARK(interrupts<bare_receiver>)->Name("gpio/burst/bare")->Arg(bench_side::most_at_once);
BENCHMARK(idle)->Name("gpio/idle")->Iterations(1)->Repetitions(1);

const bool added = zol_bench::add_rows({
    {"kiv_gpio_get, 1 pin : bare lseek and read", "gpio/get/ours/1", "gpio/get/bare", 1.1},
    {"kiv_gpio_get, 32 pins : bare lseek and read", "gpio/get/ours/32", "gpio/get/bare", 1.1},
    {"kiv_gpio_get, 256 pins : bare lseek and read", "gpio/get/ours/256", "gpio/get/bare", 1.1},
    {"kiv_gpio_get, real sysfs, 1 pin : bare lseek and read", "gpio/sysfs/ours/1", "gpio/sysfs/bare", 1.05},
    {"kiv_gpio_get, real sysfs, 16 pins : bare lseek and read", "gpio/sysfs/ours/16", "gpio/sysfs/bare",
     1.05},
    {"kiv_gpio_get, real sysfs, 256 pins : bare lseek and read", "gpio/sysfs/ours/256", "gpio/sysfs/bare",
     1.05},
    {"kiv_gpio_set, 1 pin : bare write", "gpio/set/ours/1", "gpio/set/bare", 1.1},
    {"kiv_gpio_set, 32 pins : bare write", "gpio/set/ours/32", "gpio/set/bare", 1.1},
    {"kiv_gpio_set, 256 pins : bare write", "gpio/set/ours/256", "gpio/set/bare", 1.1},
    {"interrupt raised and called back : bare poll loop", "gpio/interrupt/ours/1", "gpio/interrupt/bare/1",
     1.1},
    {"1000 interrupts raised in one go : bare poll loop", "gpio/burst/ours/1000", "gpio/burst/bare/1000"},
});

} // namespace
