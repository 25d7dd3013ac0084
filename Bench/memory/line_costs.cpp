// The costs of a line of a GPIO chip, beside bare ioctl calls and a bare loop over its events, and a count of edges at a
// steady rate. Runs on QEMU's machine "virt" with iomem=relaxed: the program changes an input by the registers of the
// chip, a PL061.

#include <fcntl.h>
#include <linux/gpio.h>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zol/zol.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>

namespace
{

using clock = std::chrono::steady_clock;

constexpr unsigned output = 2;
constexpr unsigned input = 3;

// The registers of the chip. A line that is an output for a moment keeps the level that it is given then.
class registers
{
public:
    registers()
    {
        const int memory = open("/dev/mem", O_RDWR | O_SYNC | O_CLOEXEC);
        void *const mapped = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0x9030000);
        base_ = mapped != MAP_FAILED ? static_cast<volatile std::uint32_t *>(mapped) : nullptr;
        close(memory);
    }

    [[nodiscard]] bool are_mapped() const { return base_ != nullptr; }

    void toggle_input()
    {
        constexpr std::uint32_t bit = 1U << input;
        level_ ^= bit;
        base_[direction] = base_[direction] | bit;
        base_[bit] = level_;
        base_[direction] = base_[direction] & ~bit;
    }

private:
    static constexpr std::size_t direction = 0x400 / 4;

    volatile std::uint32_t *base_;
    std::uint32_t level_ = 0;
};

sem_t g_arrived;

int on_interrupt(int32_t, uintptr_t)
{
    return sem_post(&g_arrived);
}

int request(unsigned line, std::uint64_t flags)
{
    const int chip = open("/dev/gpiochip0", O_RDWR | O_CLOEXEC);
    gpio_v2_line_request wanted = {};
    wanted.offsets[0] = line;
    wanted.num_lines = 1;
    wanted.config.flags = flags;
    const int result = ioctl(chip, GPIO_V2_GET_LINE_IOCTL, &wanted);
    close(chip);
    return result == 0 ? wanted.fd : -1;
}

constexpr int rounds = 20;
constexpr int repetitions = 500;

// The least time of an operation in ns.
struct least {
    double ns = 1e12;

    template <typename Operation>
    void measure(Operation operation)
    {
        const auto begun = clock::now();
        for (int i = 0; i < repetitions; ++i) {
            operation();
        }
        const std::chrono::duration<double, std::nano> taken = clock::now() - begun;
        ns = std::min(ns, taken.count() / repetitions);
    }
};

struct costs {
    least set;
    least get;
    least interrupt;
};

// Hangs when an interrupt is lost.
void interrupt_once(registers &chip)
{
    chip.toggle_input();
    while (sem_wait(&g_arrived) != 0) {
    }
}

void use_library(registers &chip, costs &measured)
{
    int value = 0;
    kiv_gpio_request(output, "costs");
    kiv_gpio_request(input, "costs");
    kiv_gpio_set(output, 0);
    measured.set.measure([] { kiv_gpio_set(output, 1); });
    measured.get.measure([&] { kiv_gpio_get(output, &value); });
    kiv_gpio_register_callback(input, KIV_GPIO_EDGE, KIV_GPIO_EDGE_BOTH, 0, on_interrupt, 0);
    measured.interrupt.measure([&] { interrupt_once(chip); });
    kiv_gpio_unregister_callback(input);
    kiv_gpio_free(input);
    kiv_gpio_free(output);
}

// The loop that an application without the library would write.
void receive(int line)
{
    gpio_v2_line_event events[64];
    for (long arrived = 0; arrived < repetitions;) {
        const ssize_t got = read(line, events, sizeof events);
        for (ssize_t i = 0; i < got / static_cast<ssize_t>(sizeof events[0]); ++i) {
            ++arrived;
            sem_post(&g_arrived);
        }
    }
}

void use_kernel(registers &chip, costs &measured)
{
    const int out = request(output, GPIO_V2_LINE_FLAG_OUTPUT);
    const int in = request(input, GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING |
                                      GPIO_V2_LINE_FLAG_EDGE_FALLING);
    gpio_v2_line_values values = {1, 1};
    measured.set.measure([&] { ioctl(out, GPIO_V2_LINE_SET_VALUES_IOCTL, &values); });
    measured.get.measure([&] { ioctl(out, GPIO_V2_LINE_GET_VALUES_IOCTL, &values); });
    std::thread receiver(receive, in);
    measured.interrupt.measure([&] { interrupt_once(chip); });
    receiver.join();
    close(in);
    close(out);
}

constexpr int steady_edges = 10'000;

// Changes the input 10,000 times a second, without waiting for a callback. @return The edges that were called back.
int count_steady_edges(registers &chip)
{
    int called_back = 0;
    kiv_gpio_request(input, "costs");
    kiv_gpio_register_callback(input, KIV_GPIO_EDGE, KIV_GPIO_EDGE_BOTH, 0, on_interrupt, 0);
    auto next = clock::now();
    for (int i = 0; i < steady_edges; ++i) {
        chip.toggle_input();
        next += std::chrono::microseconds(100);
        std::this_thread::sleep_until(next);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    sem_getvalue(&g_arrived, &called_back);
    kiv_gpio_unregister_callback(input);
    kiv_gpio_free(input);
    return called_back;
}

void print_row(const char *label, const least &ours, const least &bare, double goal)
{
    const double ratio = ours.ns / bare.ns;
    std::printf("%-58s %6.0f ns : %6.0f ns = %.3f  goal %.2f: %s\n", label, ours.ns, bare.ns, ratio, goal,
                ratio <= goal ? "met" : "NOT MET");
}

} // namespace

int main(int argc, char **argv)
{
    registers chip;
    sem_init(&g_arrived, 0, 0);
    if (!chip.are_mapped() || argc != 2 || zol_init(argv[1]) != KIV_OK) {
        return 1;
    }
    costs ours;
    costs bare;
    for (int round = 0; round < rounds; ++round) {
        use_library(chip, ours);
        use_kernel(chip, bare);
    }
    const auto begun = clock::now();
    const int called_back = count_steady_edges(chip);
    const std::chrono::duration<double> taken = clock::now() - begun;
    zol_deinit();
    print_row("kiv_gpio_set : bare ioctl", ours.set, bare.set, 1.05);
    print_row("kiv_gpio_get : bare ioctl", ours.get, bare.get, 1.05);
    print_row("interrupt called back : bare read loop", ours.interrupt, bare.interrupt, 1.1);
    std::printf("%d of %d edges called back, in %.1f s\n", called_back, steady_edges, taken.count());
    return 0;
}
