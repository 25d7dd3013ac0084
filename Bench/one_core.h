// Waking an idle second core of a virtual machine takes several times as long as what is measured, at random,
// and says nothing about the library.
#pragma once

#include <sched.h>

namespace zol_bench
{

/// Keeps the calling thread, and those that it starts meanwhile, on the first core as long as it exists.
class on_one_core
{
public:
    on_one_core()
    {
        cpu_set_t first;
        CPU_ZERO(&first);
        CPU_SET(0, &first);
        sched_getaffinity(0, sizeof former_, &former_);
        sched_setaffinity(0, sizeof first, &first);
    }
    ~on_one_core() { sched_setaffinity(0, sizeof former_, &former_); }
    on_one_core(const on_one_core &) = delete;
    on_one_core &operator=(const on_one_core &) = delete;

private:
    cpu_set_t former_;
};

} // namespace zol_bench
