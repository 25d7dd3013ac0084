// The registry of groups and events, and the life of the events in it.
#pragma once

#include <cstdint>
#include <utility>

#include "records.h"
#include "zol/kiv_events.h"

// Named as they show in the log.

/// @param item  Receives the record, with its pipe, not yet in the registry.
int32_t __event_item_alloc(const char *name, kiv_events_notify_cb notify_cb, kiv_event_item *&item);

/// Closes an event that nobody uses any more.
void __event_item_free(kiv_event_item &item);

/// @return True for a live event. Any other handle is reported.
bool __event_item_is_valid(const kiv_event_item *item);

/// @return The descriptor from which its records are read.
int32_t __event_item_get_read_fd(const kiv_event_item *item);

namespace kiv
{

/// The first word of the record behind a handle. If the handle is none of ours, its memory is not read.
uint32_t signature_of(const void *handle) noexcept;

/// Makes a group and puts it into the registry. @return Null when there is no memory.
kiv_event_group *register_group(const char *name);

/// Takes a group out of the registry, unless it has events or another thread has just taken it out.
/// @param name  Receives the name of a group that has events.
int32_t unregister_group(kiv_event_group *group, char (&name)[name_size]);

/// @return A record that is not in the registry, or null when there is no memory.
kiv_event_item *take_item();
void give_back(kiv_event_item &item);

/// Puts an event into the registry. @return False when its group has been deleted since it was checked.
bool register_item(kiv_event_group *group, kiv_event_item &item);

/// The outcomes of taking an event out of its group and of the registry.
enum class removal { unused, used, has_no_group, is_gone };

/// Takes an event out of the registry. The registry's use of the event passes on to the caller; the waits on
/// it get one of their own.
removal unregister_item(kiv_event_item *item);

struct start_state {
    bool is_started;
    bool is_empty; // there are no groups
};

/// Starts or stops the module; the groups and events stay. @return The state before.
start_state exchange_started(bool is_started);

/// Begins a use of the event of a handle. @return False when it is not live.
bool enter(kiv_event_item *handle) noexcept;

/// Ends the calls that are using a deleted event. From now on a notification does not wait for room any more;
/// one that is waiting notices when it gets some. The byte that is left in the pipe wakes up every waiter,
/// because none of them takes it. A child process leaves a pipe alone that its parent is using.
void wake_users(kiv_event_item &item);

/// Ends a use of an event. The last one to leave a deleted event closes its pipe.
inline void leave(kiv_event_item &item)
{
    if (item.users.fetch_sub(1) == 1) {
        __event_item_free(item);
    }
}

/// Keeps the pipe and the buffers of an event alive, even when the event is deleted meanwhile. May be empty.
class event_use
{
public:
    /// @param item  An event that has been entered already, or null.
    explicit event_use(kiv_event_item *item) noexcept : item_(item) {}
    event_use(event_use &&other) noexcept : item_(std::exchange(other.item_, nullptr)) {}
    event_use &operator=(event_use &&) = delete;
    ~event_use()
    {
        if (item_ != nullptr) {
            leave(*item_);
        }
    }

    [[nodiscard]] kiv_event_item *get() const noexcept { return item_; }
    explicit operator bool() const noexcept { return item_ != nullptr; }

private:
    kiv_event_item *item_;
};

/// @return The event of a handle, or nothing when it is not live.
inline event_use use_event(kiv_event_item *handle) noexcept
{
    return event_use(enter(handle) ? handle : nullptr);
}

/// Begins a wait on the events of many names.
/// @param items  Receives the events up to the first name that has none.
/// @return The number of these events. If it is less than @p count, the wait has not begun.
uint32_t begin_wait(const kiv_event_wait_entry *entries, uint32_t count, kiv_event_item **items);

/// Ends a wait. @param items  Is written to.
void end_wait(kiv_event_item **items, uint32_t count);

/// A copy of a group's record, for the status dump.
struct group_view {
    const kiv_event_group *handle;
    uint64_t serial;
    uint32_t signature;
    char pname[name_size];
};

/// A copy of an event's record.
struct item_view {
    const kiv_event_item *handle;
    const kiv_event_group *group;
    uint64_t serial;
    uint32_t signature;
    char pname[name_size];
    const uint8_t *p_data;
    uint32_t data_sz;
    int32_t read_fd;
    int32_t write_fd;
};

/// Moves on to the next older group, or the next older event of a group. The first view has no handle, and the
/// serial UINT64_MAX. @return False at the end.
bool next_group(group_view &view);
bool next_item(const group_view &group, item_view &view);

} // namespace kiv

/// @return The event of a name, or nothing.
kiv::event_use __event_item_find_by_name(const char *name);
