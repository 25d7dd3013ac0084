// The rendezvous of a synchronous sender and the worker that handles its message.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "kiv_debug/log_as.h"

namespace kiv
{

/// A message points at the barrier, and so at this record. The last party to leave destroys it, because the other
/// one may still be inside the barrier.
struct rendezvous {
    pthread_barrier_t barrier;
    std::int32_t status;       // the answer to the sender, set by the worker before they meet
    std::atomic<int> expected; // parties that have not left yet
};
static_assert(offsetof(rendezvous, barrier) == 0);

/// @return A rendezvous for two, or null: no memory.
[[nodiscard]] rendezvous *new_rendezvous() noexcept;

/// Destroys a rendezvous that no worker knows of.
void delete_rendezvous(rendezvous *point) noexcept;

/// The worker's side: releases the sender with a status.
void release_sender(rendezvous *point, std::int32_t status, call_site site) noexcept;

/// The sender's side. @return The worker's status, or KIV_ERR_NO_MEMORY when the barrier cannot be destroyed.
[[nodiscard]] std::int32_t wait_for_worker(rendezvous *point, call_site site) noexcept;

} // namespace kiv
