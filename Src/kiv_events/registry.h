// The records of groups and events, and what notification and waiting need of the registry.
#pragma once

#include <glib.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "common/unique_fd.h"
#include "record_index.h"
#include "zol/kiv_events.h"

namespace kiv
{

// What begins every notification in an event's pipe.
struct record_header {
    uint32_t magic;
    uint32_t size; // of the payload behind it
};
static_assert(sizeof(record_header) == 8);

inline constexpr uint32_t record_magic = 0xDEADBEEF;

// The record that an event's readers are at: a long one may take several waits to come in.
struct inbox {
    record_header header = {};
    uint32_t header_got = 0;
    uint32_t payload_got = 0;
    std::unique_ptr<uint8_t[]> payload; // of a record that may come in pieces
    uint32_t payload_room = 0;

    void start_anew() noexcept { header_got = payload_got = 0; }

    // What was no record may have claimed any length: its room is not kept.
    void discard() noexcept
    {
        start_anew();
        payload.reset();
        payload_room = 0;
    }
};

} // namespace kiv

// The first fields are the record proper, the others the registry's own.
struct kiv_event_group {
    uint32_t signature;
    char pname[64];
    GList *items; // the newest first

    uint64_t serial; // grows from group to group
    GList place;     // in g_event_group_db
};

struct kiv_event_item {
    uint32_t signature;
    char pname[64];
    std::atomic<int32_t> enabled;
    std::atomic<uint8_t *> p_data; // the container; changed by who holds notifying
    std::atomic<uint32_t> data_sz;
    kiv_events_notify_cb notify_cb;
    kiv_event_group *p_event_group;
    int32_t read_fd;
    int32_t write_fd;

    uint64_t serial; // grows from event to event
    GList place;     // in its group's items
    kiv::index_link<kiv_event_item> by_name;

    std::recursive_mutex notifying; // a notification at a time; the callback may notify
    uint32_t used;                  // of the container, by the last record
    std::atomic<bool> is_writing;   // whether bytes are sure to come into the pipe

    std::timed_mutex reading; // a reader at a time; guards the inbox
    kiv::inbox inbox;
};

// Named as they show in the log.

/// Whether a handle is a live event. One that is not is reported.
bool __event_item_is_valid(const kiv_event_item *item);

/// @return The event of a name, or null.
kiv_event_item *__event_item_find_by_name(const char *name);

/// @return The descriptor from which its records are read.
int32_t __event_item_get_read_fd(const kiv_event_item *item);

namespace kiv
{

/// Finds the events of many names in one go, and says so in the log.
/// @param items  Receives the events up to the first name that has none, and for that one null.
/// @return How many have been found: less than @p count when a name has no event.
uint32_t find_events(const kiv_event_wait_entry *entries, uint32_t count, kiv_event_item **items);

} // namespace kiv
