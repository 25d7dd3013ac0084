// Counts allocations, ours and the library's, by standing before the C library's malloc().

#include <cstddef>

#include <atomic>

#include "table.h"

namespace
{
std::atomic<unsigned long> g_allocations{0};
}

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *malloc(std::size_t size);
void *calloc(std::size_t count, std::size_t size);

void *malloc(std::size_t size)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

void *calloc(std::size_t count, std::size_t size)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
}

unsigned long zol_bench::allocations()
{
    return g_allocations.load(std::memory_order_relaxed);
}
