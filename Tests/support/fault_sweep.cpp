#include "support/fault_sweep.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <thread>

#include "support/eventually.h"

namespace zol_test
{
namespace
{

struct fault_state {
    std::atomic<bool> armed{false};
    std::atomic<int> until_failure{0};
    std::atomic<const char *> failed_call{""};
    std::atomic<const char *> only{nullptr};
};

fault_state g_faults;
std::atomic<long> g_allocations{0};
std::atomic<const char *> g_awaited_call{nullptr};
std::function<void()> g_after_call;

struct resources {
    long descriptors = entries_of("/proc/self/fd");
    long threads = entries_of("/proc/self/task");
};

// A thread that is joined may take a moment to leave the kernel's list; one may have been on its way out
// before.
bool are_back_to(const resources &before)
{
    return eventually(
        [&before] {
            const resources now;
            return now.descriptors == before.descriptors && now.threads <= before.threads;
        },
        std::chrono::seconds(1));
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

bool call_fails(const char *call, int error) noexcept
{
    const char *const only = g_faults.only;
    if (!g_faults.armed || (only != nullptr && std::strcmp(call, only) != 0) ||
        g_faults.until_failure.fetch_sub(1) != 1) {
        return false;
    }
    g_faults.failed_call = call;
    errno = error;
    return true;
}

void count_allocation() noexcept
{
    ++g_allocations;
}

void after_next(const char *call, std::function<void()> function)
{
    g_after_call = std::move(function);
    g_awaited_call = call;
}

void call_returned(const char *call)
{
    const char *awaited = g_awaited_call;
    if (awaited != nullptr && std::strcmp(awaited, call) == 0 &&
        g_awaited_call.compare_exchange_strong(awaited, nullptr)) {
        g_after_call();
    }
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

sweep_result sweep_faults(const std::function<std::string()> &scenario, const char *only)
{
    constexpr int far_too_many = 10'000;
    std::thread([] {}).join(); // a sanitizer may start a thread of its own with the first one
    g_faults.only = only;
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

int handled_failures(const std::function<bool()> &went_as_documented)
{
    const sweep_result result = sweep_faults([&went_as_documented]() -> std::string {
        return went_as_documented() ? "" : "a wrong status, or unreported";
    });
    EXPECT_EQ(result.complaints, "");
    return result.failures;
}

} // namespace zol_test
