// Sending a message to a worker, and waiting until it is handled.
#pragma once

#include <cstdint>

#include "zol/kiv_thread.h"

namespace kiv
{

inline constexpr char send_routine[] = "kiv_thread_sendMsg"; // its lines in the log

/// @retval KIV_OK             The message is the worker's.
/// @retval KIV_ERR_STATE      There is no worker to handle it. Not logged, because to a stop it is no error.
/// @retval KIV_ERR_NO_MEMORY  There is no memory for the rendezvous.
[[nodiscard]] std::int32_t send(kiv_thread *thread, kiv_message *msg);

} // namespace kiv
