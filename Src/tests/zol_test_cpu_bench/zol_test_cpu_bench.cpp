// The CPU and timer benchmark: puts loads on the board, and measures how accurate its timers are.

#include <getopt.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "kiv_debug/log_as.h"
#include "kiv_test/option_loop.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_test.h"

using kiv::call_site;

namespace
{

constexpr char separator[] = "====================================================================";
static_assert(sizeof separator == 68 + 1);

// BENCH_LOG_AT logs for a helper, under the name of the benchmark that uses it.
#define BENCH_LOG(text, ...) BENCH_LOG_AT(call_site::here(), text __VA_OPT__(, ) __VA_ARGS__)
#define BENCH_LOG_AT(site, text, ...)                                                                        \
    KIV_LOG_AT(site, PRNT, "\033[36m" text "\n\033[0m" __VA_OPT__(, ) __VA_ARGS__)

// The mapping is one byte larger than a page, so that each takes two.
struct parameters {
    int32_t loop_cnt = 1000;
    int32_t spin_cnt = 100'000;
    int32_t sleep_cnt = 1;
    int32_t sleep_duration_ms = 10;
    int32_t size_bytes = 4097;
};

// The mappings of the mapping benchmark.
struct mem_node {
    void *addr;
    uint32_t size;
    uint32_t isFree;
};

constexpr int32_t nodes = 1000;
mem_node mem_node_arr[nodes];
int32_t i; // the slot at which the next search begins

// Marks a slot that holds no mapping.
void *free_addr()
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(0xdeadbeef));
}

void set_up_nodes()
{
    std::fill_n(mem_node_arr, nodes, mem_node{free_addr(), 0xbeeec001, 1});
}

void __free_mem_node(mem_node &node)
{
    if (!KIV_HOLDS(munmap(node.addr, node.size) == 0)) {
        KIV_LOG_ERRR("can't unmap a slot, errno %d\n", errno); // its mapping may have failed
    }
    node = {free_addr(), 0xbeeec00, 1};
}

void __free_all_mem_nodes()
{
    for (mem_node &node : mem_node_arr) {
        if (node.isFree == 0) {
            __free_mem_node(node);
        }
    }
}

// Searches from the cursor on. @return Null: all are in use.
mem_node *find_free_node()
{
    for (int32_t looked = 0; looked < nodes; ++looked) {
        i %= nodes;
        if (mem_node_arr[i].isFree != 0) {
            return &mem_node_arr[i];
        }
        ++i;
    }
    return nullptr;
}

// Mappings pile up until every slot is in use. Then all of them go at once.
mem_node &free_node()
{
    mem_node *node = find_free_node();
    if (node == nullptr) {
        __free_all_mem_nodes();
        node = find_free_node();
    }
    return *node;
}

bool map_node(mem_node &node, int32_t size_bytes)
{
    node.isFree = 0;
    node.addr = mmap(nullptr, static_cast<size_t>(size_bytes), PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (node.addr == MAP_FAILED) {
        return false;
    }
    node.size = static_cast<uint32_t>(size_bytes);
    *static_cast<volatile uint32_t *>(node.addr) = 0x1234; // so that the first page is really there
    return true;
}

void _zol_cpu_mmapbench(const parameters &with)
{
    BENCH_LOG("%s", separator);
    BENCH_LOG("size_bytes %d, loop_cnt %d", with.size_bytes, with.loop_cnt);
    set_up_nodes();
    for (int32_t remaining = with.loop_cnt; remaining > 0; --remaining) {
        if (!map_node(free_node(), with.size_bytes)) {
            KIV_LOG_ERRR("%s, failed allocating %d bytes (errno %d)\n", __func__, with.size_bytes, errno);
            KIV_LOG_ERRR("%s, local_loop_cnt %d\n", __func__, remaining);
            break;
        }
    }
    __free_all_mem_nodes();
    BENCH_LOG("%s", separator);
    BENCH_LOG("%s", separator);
}

// Wraps around every 71 minutes, which the summary notes as a time that runs backwards.
uint32_t microseconds_now()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<uint32_t>(now.tv_sec) * 1'000'000U + static_cast<uint32_t>(now.tv_usec);
}

// The maximum and the average of the measured times.
struct summary {
    uint32_t max = 0;
    double sum = 0.0;

    void add(uint32_t pre, uint32_t post, call_site site)
    {
        if (pre >= post) {
            BENCH_LOG_AT(site, "pre more than post? pre %ld, post %ld", static_cast<long>(pre),
                         static_cast<long>(post));
        }
        const uint32_t delta = pre < post ? post - pre : pre - post;
        max = std::max(max, delta);
        sum += delta;
    }

    void report(int32_t loop_cnt, call_site site) const
    {
        const auto total = static_cast<uint32_t>(static_cast<uint64_t>(sum));
        const uint32_t average = loop_cnt > 0 ? total / static_cast<uint32_t>(loop_cnt) : 0;
        BENCH_LOG_AT(site, "%s", separator);
        BENCH_LOG_AT(site, "max_usec_delta %ld [usec]", static_cast<long>(max));
        BENCH_LOG_AT(site, "avg_usec_delta %ld [usec]", static_cast<long>(average));
        BENCH_LOG_AT(site, "%s", separator);
    }
};

// The counter is volatile, so that the optimiser keeps the loop.
void spin(int32_t count)
{
    for (int32_t n = 0; n < count; ++n) {
        volatile int down = 10;
        while (down > 0) {
            const int next = down - 1;
            down = next;
        }
    }
}

// A busy and an idle phase in turn. The idle one is measured: it shows the accuracy of nanosleep() under load.
void _zol_cpu_testbench_loop(const parameters &with)
{
    const timespec request = {with.sleep_duration_ms / 1000, with.sleep_duration_ms % 1000 * 1'000'000L};
    BENCH_LOG("%s", separator);
    BENCH_LOG("spin_cnt: %d, sleep_cnt: %d, sleep_duration_ms: %d, loop_cnt: %d\n", with.spin_cnt,
              with.sleep_cnt, with.sleep_duration_ms, with.loop_cnt);
    summary times;
    for (int32_t loop = 0; loop < with.loop_cnt; ++loop) {
        spin(with.spin_cnt);
        const uint32_t pre = microseconds_now();
        for (int32_t n = 0; n < with.sleep_cnt; ++n) {
            nanosleep(&request, nullptr);
        }
        times.add(pre, microseconds_now(), call_site::here());
    }
    times.report(with.loop_cnt, call_site::here());
}

// select() is the other timer that applications use. It watches standard input: input ends a wait early, which is noted.
void _zol_timer_testbench_loop(const parameters &with)
{
    fd_set read_set;
    FD_ZERO(&read_set);
    FD_SET(0, &read_set);
    BENCH_LOG("%s", separator);
    BENCH_LOG("sleep_duration_ms: %d, loop_cnt: %d\n", with.sleep_duration_ms, with.loop_cnt);
    summary times;
    for (int32_t loop = 0; loop < with.loop_cnt; ++loop) {
        // select() may change it, so each round sets it again.
        timeval timeout = {with.sleep_duration_ms / 1000, with.sleep_duration_ms % 1000 * 1000L};
        const uint32_t pre = microseconds_now();
        const int ready = select(1, &read_set, nullptr, nullptr, &timeout);
        if (ready == -1) {
            BENCH_LOG("failed selecting, errno %d", errno);
        } else if (ready > 0) {
            BENCH_LOG("have something to read");
        }
        times.add(pre, microseconds_now(), call_site::here());
    }
    times.report(with.loop_cnt, call_site::here());
}

// A load of many short processes.
[[noreturn]] void run_uname_forever()
{
    for (;;) {
        if (std::system("uname -a") == -1) {
            KIV_LOG_AS("_zol_test_cpubench", ERRR, "can't run uname -a, errno %d\n", errno);
        }
    }
}

// A load of one core, without a system call.
[[noreturn]] void spin_forever()
{
    for (;;) {
        spin(1);
    }
}

constexpr char shortOptions[] = "l:c:d:s:uemz:p1";

constexpr option longOptions[] = {
    {"loopcnt", required_argument, nullptr, 'l'},
    {"delaycnt", required_argument, nullptr, 'c'},
    {"delay", required_argument, nullptr, 'd'},
    {"spincnt", required_argument, nullptr, 's'},
    {"uname", no_argument, nullptr, 'u'},
    {"empty", no_argument, nullptr, 'e'},
    {"mem", no_argument, nullptr, 'm'},
    {"mem_sz", required_argument, nullptr, 'z'},
    {"cpu", no_argument, nullptr, 'p'},
    {"select", no_argument, nullptr, '1'},
    {nullptr, 0, nullptr, 0},
};

void set_parameter(int32_t &parameter, const char *format_before, const char *format_after)
{
    parameter = stoi(optarg);
    std::printf("%s%d%s", format_before, parameter, format_after);
}

// An option is a command: it sets a parameter, or runs with the ones set so far.
void apply_option(int letter, parameters &with)
{
    switch (letter) {
    case 'l':
        return set_parameter(with.loop_cnt, "loopcount is ", "\n");
    case 's':
        return set_parameter(with.spin_cnt, "spincnt is ", "\n");
    case 'c':
        return set_parameter(with.sleep_cnt, "sleepcnt is ", " \n");
    case 'd':
        return set_parameter(with.sleep_duration_ms, "delay is ", " \n");
    case 'z':
        with.size_bytes = stoi(optarg);
        return;
    case 'm':
        return _zol_cpu_mmapbench(with);
    case 'p':
        return _zol_cpu_testbench_loop(with);
    case '1':
        return _zol_timer_testbench_loop(with);
    case 'u':
        run_uname_forever();
    case 'e':
        spin_forever();
    default:
        return;
    }
}

} // namespace

int _zol_test_cpubench(int argc, char **argv, unsigned)
{
    constexpr const char *test = "CPU_BENCH";
    BENCH_LOG("%s test - start", test);
    parameters with;
    kiv::for_each_option(argc, argv, shortOptions, longOptions,
                         [&with](int letter) { apply_option(letter, with); });
    BENCH_LOG("%s test - end", test);
    return 1;
}
