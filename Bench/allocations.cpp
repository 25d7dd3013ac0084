// Counts allocations, ours and the library's, by standing before the C library's malloc().

#include <cstddef>

#include <atomic>

#include "table.h"

namespace
{
std::atomic<unsigned long> g_allocations{0};
std::atomic<int> g_watchers{0};

void count_one() noexcept
{
    if (g_watchers.load(std::memory_order_relaxed) != 0) {
        g_allocations.fetch_add(1, std::memory_order_relaxed);
    }
}

} // namespace

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *malloc(std::size_t size);
void *calloc(std::size_t count, std::size_t size);

void *malloc(std::size_t size)
{
    count_one();
    return __libc_malloc(size);
}

void *calloc(std::size_t count, std::size_t size)
{
    count_one();
    return __libc_calloc(count, size);
}
}

zol_bench::allocation_count::allocation_count() noexcept
    : before_(g_allocations.load(std::memory_order_relaxed))
{
    ++g_watchers;
}

zol_bench::allocation_count::~allocation_count()
{
    --g_watchers;
}

unsigned long zol_bench::allocation_count::so_far() const noexcept
{
    return g_allocations.load(std::memory_order_relaxed) - before_;
}
