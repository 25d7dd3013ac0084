// Register reads and writes beside the bare ioctl on the same descriptor: on the virtual board, where a
// transfer costs what a trip through a user-space file system costs, and on a stand-in, a system call that
// does next to nothing, which shows what the library itself adds.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

#include "one_core.h"
#include "started_library.h"
#include "table.h"
#include "zol/zol.h"

namespace
{

constexpr uint16_t device_address = 0x18;
constexpr uint8_t device_register = 0x30;

bool g_stand_in;

// An open device, with the library started as an application would.
class device
{
public:
    device(benchmark::State &state, bool stand_in) : library_(stand_in ? "/dev/null" : "/dev/i2c-4")
    {
        g_stand_in = stand_in;
        if (!library_.is_started() || kiv_i2c_open(&handle, 4, device_address) != KIV_OK) {
            state.SkipWithError("no I2C device; run on the virtual board");
        }
    }
    ~device() { kiv_i2c_close(&handle); }
    device(const device &) = delete;
    device &operator=(const device &) = delete;

    kiv_i2c_handle handle = {};

private:
    zol_bench::on_one_core pinned_; // which is the board's
    zol_bench::started_library library_;
};

void finish(benchmark::State &state, const zol_bench::allocation_count &allocations)
{
    if (allocations.so_far() != 0) {
        state.SkipWithError("a transfer allocates");
    }
}

template <bool stand_in>
void read_ours(benchmark::State &state)
{
    device opened(state, stand_in);
    uint8_t value = 0;
    const zol_bench::allocation_count allocations;
    for (auto _ : state) {
        benchmark::DoNotOptimize(kiv_i2c_read_reg8(&opened.handle, device_register, 1, &value));
    }
    finish(state, allocations);
}

template <bool stand_in>
void read_bare(benchmark::State &state)
{
    device opened(state, stand_in);
    uint8_t value = 0;
    for (auto _ : state) {
        uint8_t reg = device_register;
        i2c_msg messages[] = {{device_address, 0, 1, &reg}, {device_address, I2C_M_RD, 1, &value}};
        i2c_rdwr_ioctl_data request = {messages, 2};
        benchmark::DoNotOptimize(ioctl(opened.handle.fd, I2C_RDWR, &request));
    }
}

template <bool stand_in>
void write_ours(benchmark::State &state)
{
    device opened(state, stand_in);
    const uint8_t value = 0x5a;
    const zol_bench::allocation_count allocations;
    for (auto _ : state) {
        benchmark::DoNotOptimize(kiv_i2c_write_reg8(&opened.handle, device_register, 1, &value));
    }
    finish(state, allocations);
}

template <bool stand_in>
void write_bare(benchmark::State &state)
{
    device opened(state, stand_in);
    for (auto _ : state) {
        uint8_t bytes[] = {device_register, 0x5a};
        i2c_msg message = {device_address, 0, 2, bytes};
        i2c_rdwr_ioctl_data request = {&message, 1};
        benchmark::DoNotOptimize(ioctl(opened.handle.fd, I2C_RDWR, &request));
    }
}

// A trip through the board takes long and varies much: many short repetitions find the undisturbed ones.
void on_the_board(benchmark::internal::Benchmark *benchmark)
{
    benchmark->Repetitions(150)->Iterations(400);
}

BENCHMARK(read_ours<false>)->Name("i2c/read/ours")->Apply(on_the_board);
BENCHMARK(read_bare<false>)->Name("i2c/read/bare")->Apply(on_the_board);
BENCHMARK(write_ours<false>)->Name("i2c/write/ours")->Apply(on_the_board);
BENCHMARK(write_bare<false>)->Name("i2c/write/bare")->Apply(on_the_board);
BENCHMARK(read_ours<true>)->Name("i2c_stand_in/read/ours");
BENCHMARK(read_bare<true>)->Name("i2c_stand_in/read/bare");
BENCHMARK(write_ours<true>)->Name("i2c_stand_in/write/ours");
BENCHMARK(write_bare<true>)->Name("i2c_stand_in/write/bare");

const bool added = zol_bench::add_rows({
    {"kiv_i2c_read_reg8 : bare ioctl, virtual board", "i2c/read/ours", "i2c/read/bare", 1.02},
    {"kiv_i2c_write_reg8 : bare ioctl, virtual board", "i2c/write/ours", "i2c/write/bare", 1.02},
    {"kiv_i2c_read_reg8 : a system call that does nothing", "i2c_stand_in/read/ours",
     "i2c_stand_in/read/bare"},
    {"kiv_i2c_write_reg8 : a system call that does nothing", "i2c_stand_in/write/ours",
     "i2c_stand_in/write/bare"},
});

} // namespace

// Stands before the C library's, for the library and for the bare calls alike.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    if (g_stand_in && request == I2C_RDWR) {
        syscall(SYS_getppid);
        return static_cast<int>(static_cast<i2c_rdwr_ioctl_data *>(argument)->nmsgs);
    }
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}
