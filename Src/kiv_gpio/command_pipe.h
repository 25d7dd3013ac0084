// The listener's command pipe, and the semaphore by which it answers. Part of the listener.
#pragma once

#include <cstdint>

#include "kiv_debug/log_as.h"

/// Each sends a word. @return False after a line in the log.
bool __listener_send_msg(uint32_t word);
bool __listener_ping();

/// Waits for the answer to the word that the caller has sent.
void __listener_wait_for_completion();

namespace kiv::gpio
{

/// @return False after a line in the log.
bool open_command_pipe(call_site site);
bool init_answers(call_site site);

/// Closes the pipe. A failure is logged.
void close_command_pipe(call_site site);

/// The same without a word, in a forked child.
void abandon_command_pipe() noexcept;

void destroy_answers() noexcept;

/// The end to poll.
int command_fd() noexcept;

/// @param events  As poll() has reported them for the pipe.
/// @return True when the program has closed the pipe, so that no command can come any more.
bool is_command_pipe_gone(short events) noexcept;

/// Reads a word without waiting. @return False when there is none.
bool read_command(uint32_t &word) noexcept;

/// Releases the sender of a word.
void answer() noexcept;

} // namespace kiv::gpio
