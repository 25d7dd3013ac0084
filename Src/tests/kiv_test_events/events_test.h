// The parts of the events test. Its console prints handles as decimal numbers, to be typed back.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zol/kiv_events.h"

namespace kiv::events_test
{

inline constexpr int32_t num_events = 50;
inline constexpr std::size_t text_size = 64; // of names and of notifications

/// The task of a listener, and its progress.
struct listener_info {
    int32_t count;
    int32_t iterations;
    char names[num_events][text_size];
    int32_t timeout; // microseconds
    int32_t failed;
    kiv_event_wait_entry entries[num_events]; // the listener's own
    // The notifier reads both while the listener runs.
    std::atomic<int64_t> received;
    std::atomic<bool> ended;
};

inline intptr_t id_of(const void *handle)
{
    return reinterpret_cast<intptr_t>(handle);
}

/// The body of a thread that waits for events. @param argument  Its listener_info.
void *__listener(void *argument);

/// Sends a text with its final zero.
int32_t notify_text(kiv_event_item *item, const char *text);

/// The scripted tests. @return True when they have passed.
bool __test01(int32_t iterations);
bool __test02();
bool __create_delete_ev_group_test(int32_t count);

/// @return The error of the last listener that could not be started, or 0.
int run_console();

} // namespace kiv::events_test
