// Waking an idle second core of a virtual machine takes several times as long as what is measured, at random,
// and says nothing about the library.
#pragma once

#include <sched.h>

#include <cstddef>

namespace zol_bench
{

/// Keeps the calling thread, and those that it starts meanwhile, on one core as long as it exists.
class on_one_core
{
public:
    explicit on_one_core(int core = 0)
    {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(static_cast<std::size_t>(core), &one);
        sched_getaffinity(0, sizeof former_, &former_);
        sched_setaffinity(0, sizeof one, &one); // fails where there is no such core
    }
    ~on_one_core() { sched_setaffinity(0, sizeof former_, &former_); }
    on_one_core(const on_one_core &) = delete;
    on_one_core &operator=(const on_one_core &) = delete;

private:
    cpu_set_t former_;
};

} // namespace zol_bench
