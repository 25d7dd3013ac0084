// The records of groups and events.
#pragma once

#include <glib.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/mutex.h"
#include "record_index.h"
#include "zol/kiv_events.h"

namespace kiv
{

// Begins every notification in an event's pipe.
struct record_header {
    uint32_t magic;
    uint32_t size; // of the payload behind it
};
static_assert(sizeof(record_header) == 8);

inline constexpr uint32_t record_magic = 0xDEADBEEF;

inline constexpr std::size_t name_size = 64;

// The first words of the records. A record that is not live has the dead one.
inline constexpr uint32_t group_signature = 0x5A5A0001;
inline constexpr uint32_t item_signature = 0x5A5A0002;
inline constexpr uint32_t dead_signature = 0xDEADBEEF;

// The record that is being read from an event's pipe. A long one may take several waits to arrive.
struct inbox {
    record_header header = {};
    uint32_t header_got = 0;
    uint32_t payload_got = 0;
    std::unique_ptr<uint8_t[]> payload; // of a record that may arrive in pieces
    uint32_t payload_room = 0;
    bool is_torn = false; // a part is lost, because there was no memory to keep it

    // Room for the records that fit into a pipe is kept, so that they cost no allocation each.
    static constexpr uint32_t largest_kept = 65'536;

    /// Gets ready for the next record.
    void start_anew() noexcept
    {
        header_got = payload_got = 0;
        is_torn = false;
        if (payload_room > largest_kept) {
            free_room();
        }
    }

    void free_room() noexcept
    {
        payload.reset();
        payload_room = 0;
    }
};

} // namespace kiv

// The first fields are the record proper, the others the registry's own.
struct kiv_event_group {
    std::atomic<uint32_t> signature{kiv::dead_signature};
    char pname[kiv::name_size];
    GList *items; // the newest first; null before and behind a group's life

    uint64_t serial; // grows from group to group
    GList place;     // in g_event_group_db
    kiv_event_group *next_free;
};

struct kiv_event_item {
    std::atomic<uint32_t> signature{kiv::dead_signature};
    char pname[kiv::name_size];
    std::atomic<int32_t> enabled;
    std::atomic<uint8_t *> p_data; // the container; changed by the holder of notifying
    std::atomic<uint32_t> data_sz;
    kiv_events_notify_cb notify_cb;
    kiv_event_group *p_event_group;
    int32_t read_fd = -1;
    int32_t write_fd = -1;

    // The pipe and the buffers live until the last user has left. The registry is one of them until the event
    // is deleted, and from then on all waits that are under way together; each other call is one.
    std::atomic<uint32_t> users;
    uint32_t waits;    // guarded by the registry's lock
    uint64_t serial;   // grows from event to event
    GList place;       // in its group's items
    pid_t shared_with; // the parent process that uses the same pipe, or 0
    kiv::index_link<kiv_event_item> by_name;
    kiv_event_item *next_free;

    kiv::recursive_mutex notifying; // a notification at a time; the callback may notify
    uint32_t used;                  // of the container, by the last record
    std::atomic<bool> is_writing;   // more bytes of a long record are sure to come into the pipe

    kiv::mutex reading; // never held while waiting; guards the inbox
    kiv::inbox inbox;

    [[nodiscard]] bool is_deleted() const noexcept { return signature != kiv::item_signature; }
};
