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
    int failures = 0;       // how many runs had a call fail
    std::string complaints; // a line per run that left something behind or that the scenario complained of
};

/// Runs a scenario with its 1st, 2nd, ... fallible call failing, until a run meets none. After each run the
/// number of descriptors and threads must be what it was before.
/// @param scenario  Begins and ends with the library in the same state. Returns a complaint, or "".
/// @param only      Counts and fails no other call than this one.
sweep_result sweep_faults(const std::function<std::string()> &scenario, const char *only = nullptr);

/// The name of the call that was made to fail in this run; "" when none was.
std::string failed_call();

/// For the wrappers: whether this call is the one to fail.
bool call_fails(const char *call) noexcept;
bool allocation_fails(const char *call) noexcept;

/// How many blocks of memory the library has asked for so far.
long allocations() noexcept;

/// The entries of a directory, such as /proc/self/fd.
long entries_of(const char *directory);

} // namespace zol_test
