#include "support/fault_sweep.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>

namespace zol_test
{
namespace
{

struct fault_state {
    std::atomic<bool> armed{false};
    std::atomic<int> until_failure{0};
    std::atomic<const char *> failed_call{""};
};

fault_state g_faults;
std::atomic<long> g_allocations{0};

struct resources {
    long descriptors = entries_of("/proc/self/fd");
    long threads = entries_of("/proc/self/task");
};

// A thread that is joined may take a moment to leave the kernel's list; one may have been on its way out
// before.
bool are_back_to(const resources &before)
{
    for (int tries = 0; tries < 1000; ++tries) {
        const resources now;
        if (now.descriptors == before.descriptors && now.threads <= before.threads) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

std::string run_with_failure(int nth, const std::function<std::string()> &scenario)
{
    const resources before;
    g_faults.failed_call = "";
    g_faults.until_failure = nth;
    g_faults.armed = true;
    std::string complaint = scenario();
    g_faults.armed = false;
    if (!are_back_to(before)) {
        complaint += " a descriptor or thread is left behind";
    }
    return complaint;
}

} // namespace

std::string failed_call()
{
    return g_faults.failed_call.load();
}

bool call_fails(const char *call) noexcept
{
    if (!g_faults.armed || g_faults.until_failure.fetch_sub(1) != 1) {
        return false;
    }
    g_faults.failed_call = call;
    return true;
}

bool allocation_fails(const char *call) noexcept
{
    ++g_allocations;
    return call_fails(call);
}

long allocations() noexcept
{
    return g_allocations;
}

long entries_of(const char *directory)
{
    return std::distance(std::filesystem::directory_iterator(directory),
                         std::filesystem::directory_iterator());
}

sweep_result sweep_faults(const std::function<std::string()> &scenario)
{
    constexpr int far_too_many = 10'000;
    std::thread([] {}).join(); // a sanitizer may start a thread of its own with the first one
    sweep_result result;
    for (int nth = 1; nth < far_too_many; ++nth) {
        const std::string complaint = run_with_failure(nth, scenario);
        if (!complaint.empty()) {
            result.complaints +=
                "call " + std::to_string(nth) + " (" + failed_call() + "): " + complaint + "\n";
        }
        if (failed_call().empty()) {
            return result;
        }
        ++result.failures;
    }
    result.complaints += "the scenario does not come to an end\n";
    return result;
}

} // namespace zol_test
