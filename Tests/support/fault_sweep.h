// Fails the fallible calls of the library one after another.
//
// The test program is linked with --wrap for each call in wrapped_calls.cpp. While a sweep runs, those calls
// are counted, and the chosen one fails as it would for want of memory, of descriptors, or of luck.
#pragma once

#include <functional>
#include <string>

namespace zol_test
{

struct sweep_result {
    int failures = 0;       // the runs in which a call failed
    std::string complaints; // a line per run that left something behind or that the scenario complained of
};

/// Runs a scenario with its 1st, 2nd, ... fallible call failing, until a run meets none. After each run the
/// number of descriptors and threads must be what it was before.
/// @param scenario  Begins and ends with the library in the same state. Returns a complaint, or "".
/// @param only      Counts and fails no other call than this one.
sweep_result sweep_faults(const std::function<std::string()> &scenario, const char *only = nullptr);

/// Sweeps a scenario that tells whether it went as documented. The test fails if a run did not.
/// @return The number of runs in which a call failed.
int handled_failures(const std::function<bool()> &went_as_documented);

/// The name of the call that was made to fail in this run; "" when none was.
std::string failed_call();

/// For the wrappers. @return True, and errno set, for the call that must fail.
bool call_fails(const char *call, int error) noexcept;
void count_allocation() noexcept;

/// Calls a function once, after the next call of this kind and before the library goes on.
/// @param call  "write", or "read" for one that has found nothing.
void after_next(const char *call, std::function<void()> function);

/// For the wrappers.
void call_returned(const char *call);

/// Counts the allocations so far.
long allocations() noexcept;

/// The entries of a directory, such as /proc/self/fd.
long entries_of(const char *directory);

} // namespace zol_test
