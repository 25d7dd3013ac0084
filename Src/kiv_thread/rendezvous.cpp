#include "rendezvous.h"

#include <cstdlib>
#include <new>

#include "zol/kiv_status.h"

namespace kiv
{
namespace
{

void meet(rendezvous *point, call_site site) noexcept
{
    const int result = pthread_barrier_wait(&point->barrier);
    static_cast<void>(KIV_HOLDS_AT(site, result == 0 || result == PTHREAD_BARRIER_SERIAL_THREAD));
}

// @return False when the barrier could not be destroyed.
bool leave(rendezvous *point, call_site site) noexcept
{
    if (point->expected.fetch_sub(1, std::memory_order_acq_rel) > 1) {
        return true;
    }
    const bool is_destroyed = KIV_HOLDS_AT(site, pthread_barrier_destroy(&point->barrier) == 0);
    std::free(point);
    return is_destroyed;
}

} // namespace

rendezvous *new_rendezvous() noexcept
{
    void *const block = std::malloc(sizeof(rendezvous));
    if (block == nullptr) {
        return nullptr;
    }
    auto *const point = new (block) rendezvous{{}, KIV_OK, 2};
    if (pthread_barrier_init(&point->barrier, nullptr, 2) != 0) {
        std::free(block);
        return nullptr;
    }
    return point;
}

void delete_rendezvous(rendezvous *point) noexcept
{
    pthread_barrier_destroy(&point->barrier);
    std::free(point);
}

void release_sender(rendezvous *point, std::int32_t status, call_site site) noexcept
{
    point->status = status;
    meet(point, site);
    leave(point, site);
}

std::int32_t wait_for_worker(rendezvous *point, call_site site) noexcept
{
    meet(point, site);
    const std::int32_t status = point->status;
    return leave(point, site) ? status : KIV_ERR_NO_MEMORY;
}

} // namespace kiv
