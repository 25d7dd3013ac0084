// The groups and events that exist. One lock guards changes and look-ups of names; it is never held while
// anything is logged, read or written. Handles are looked up without it.
//
// A record that leaves the registry goes back to its pool, which uses it again much later.

#include "registry.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstring>
#include <functional>
#include <new>
#include <string_view>
#include <utility>

#include "common/immortal.h"
#include "common/intrusive_list.h"
#include "common/mutex.h"
#include "common/text.h"
#include "kiv_debug/log_as.h"
#include "record_pool.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using kiv::dead_signature;
using kiv::event_use;
using kiv::group_signature;
using kiv::item_signature;
using kiv::name_size;
using kiv::number_of;
using kiv::scoped_lock;

namespace
{

using name_index = kiv::record_index<kiv_event_item, &kiv_event_item::by_name>;

kiv::mutex g_lock; // guards everything below, the lists of the groups, and the links of all records
int32_t g_module_instialized KIV_GUARDED_BY(g_lock);
GList *g_event_group_db KIV_GUARDED_BY(g_lock);
constinit kiv::immortal<name_index> g_names KIV_GUARDED_BY(g_lock);
uint64_t g_serial KIV_GUARDED_BY(g_lock); // of the newest record

// Guarded by g_lock, except for owns().
constinit kiv::immortal<kiv::record_pool<kiv_event_group>> g_groups;
constinit kiv::immortal<kiv::record_pool<kiv_event_item>> g_items;

std::string_view key_of(const char *name) noexcept
{
    return {name, strnlen(name, name_size)};
}

std::size_t hash_of(std::string_view name) noexcept
{
    return std::hash<std::string_view>()(name);
}

bool is_live_item(const kiv_event_item *handle) noexcept
{
    return kiv::signature_of(handle) == item_signature;
}

bool is_live_group(const kiv_event_group *handle) noexcept
{
    return kiv::signature_of(handle) == group_signature;
}

bool is_newer(const kiv_event_item &one, const kiv_event_item &other) noexcept
{
    return one.p_event_group == other.p_event_group ? one.serial > other.serial
                                                    : one.p_event_group->serial > other.p_event_group->serial;
}

// Of several events of one name, the newest one of the newest group.
kiv_event_item *find_newest(const char *name) KIV_REQUIRES(g_lock)
{
    if (name == nullptr) {
        return nullptr;
    }
    const std::string_view key = key_of(name);
    kiv_event_item *newest = nullptr;
    for (auto *item = g_names->first(hash_of(key)); item != nullptr; item = g_names->after(*item)) {
        if (std::strncmp(item->pname, name, name_size) == 0 &&
            (newest == nullptr || is_newer(*item, *newest))) {
            newest = item;
        }
    }
    return newest;
}

void __event_group_free(kiv_event_group &group) KIV_REQUIRES(g_lock)
{
    group.signature = dead_signature;
    g_groups->give_back(group);
}

// The record after the one that was shown last, in a list from the newest to the oldest. A walk holds the lock
// for one step at a time; if that record is gone by then, the walk goes on at the next older one.
template <typename Record>
const Record *next_older(const GList *list, const Record *last, uint64_t serial) noexcept
{
    if (last != nullptr && last->signature != dead_signature && last->serial == serial) {
        list = last->place.next;
    }
    while (list != nullptr && static_cast<const Record *>(list->data)->serial >= serial) {
        list = list->next;
    }
    return list != nullptr ? static_cast<const Record *>(list->data) : nullptr;
}

// A forked child has only the forking thread: locks that other threads held would stay taken for ever, and the
// records that those threads were writing or reading end in the parent.
void make_usable_in_child(kiv_event_item &item)
{
    new (&item.notifying) kiv::recursive_mutex;
    new (&item.reading) kiv::mutex;
    item.is_writing = false;
    item.inbox.start_anew();
    item.shared_with = getppid();
}

void lock_before_fork() KIV_ACQUIRE(g_lock)
{
    g_lock.lock();
}

void unlock_in_parent() KIV_RELEASE(g_lock)
{
    g_lock.unlock();
}

void unlock_in_child() KIV_RELEASE(g_lock)
{
    g_items->for_each(make_usable_in_child);
    g_lock.unlock();
}

// Once per process. Without memory for it, forked children are on their own.
void watch_forks()
{
    static std::atomic<bool> is_done{false};
    if (!is_done.exchange(true)) {
        pthread_atfork(lock_before_fork, unlock_in_parent, unlock_in_child);
    }
}

} // namespace

uint32_t kiv::signature_of(const void *handle) noexcept
{
    if (g_items->owns(handle)) {
        return static_cast<const kiv_event_item *>(handle)->signature;
    }
    return g_groups->owns(handle) ? static_cast<const kiv_event_group *>(handle)->signature.load()
                                  : dead_signature;
}

bool __event_item_is_valid(const kiv_event_item *item)
{
    if (item == nullptr) {
        KIV_LOG_ERRR("Event item is null\n");
        return false;
    }
    const uint32_t signature = kiv::signature_of(item);
    if (signature != item_signature) {
        KIV_LOG_ERRR("Event item 0x%" PRIxPTR " does not have a valid signature (0x%x)\n", number_of(item),
                     signature);
        return false;
    }
    return true;
}

event_use __event_item_find_by_name(const char *name)
{
    KIV_LOG_INF1("looking for %s\n", kiv::shown(name));
    const scoped_lock lock(g_lock);
    kiv_event_item *const item = find_newest(name);
    if (item != nullptr) {
        ++item->users;
    }
    return event_use(item);
}

int32_t __event_item_get_read_fd(const kiv_event_item *item)
{
    return item->read_fd;
}

bool kiv::enter(kiv_event_item *handle) noexcept
{
    if (!g_items->owns(handle)) {
        return false;
    }
    uint32_t users = handle->users;
    do {
        if (users == 0) {
            return false; // its pipe is closed, or about to be
        }
    } while (!handle->users.compare_exchange_weak(users, users + 1));
    if (handle->is_deleted()) {
        leave(*handle);
        return false;
    }
    return true;
}

kiv_event_group *kiv::register_group(const char *name)
{
    watch_forks();
    const scoped_lock lock(g_lock);
    kiv_event_group *const group = g_groups->take();
    if (group != nullptr) {
        kiv::copy_bounded(group->pname, sizeof group->pname, name);
        group->serial = ++g_serial;
        kiv::prepend(g_event_group_db, *group, group->place);
        group->signature = group_signature;
    }
    return group;
}

int32_t kiv::unregister_group(kiv_event_group *group, char (&name)[name_size])
{
    const scoped_lock lock(g_lock);
    if (!is_live_group(group)) {
        return KIV_ERR_INVALID_PARAM;
    }
    if (group->items != nullptr) {
        kiv::copy_bounded(name, sizeof name, group->pname);
        return KIV_ERR_STATE;
    }
    g_event_group_db = g_list_remove_link(g_event_group_db, &group->place);
    __event_group_free(*group);
    return KIV_OK;
}

kiv_event_item *kiv::take_item()
{
    const scoped_lock lock(g_lock);
    return g_items->take();
}

void kiv::give_back(kiv_event_item &item)
{
    const scoped_lock lock(g_lock);
    g_items->give_back(item);
}

bool kiv::register_item(kiv_event_group *group, kiv_event_item &item)
{
    const scoped_lock lock(g_lock);
    if (!is_live_group(group)) {
        return false;
    }
    item.serial = ++g_serial;
    item.p_event_group = group;
    g_names->add(item, hash_of(key_of(item.pname)));
    kiv::prepend(group->items, item, item.place);
    item.users = 1;
    item.signature = item_signature;
    return true;
}

kiv::removal kiv::unregister_item(kiv_event_item *item)
{
    const scoped_lock lock(g_lock);
    if (!is_live_item(item)) { // another thread has taken it out since it was checked
        return removal::is_gone;
    }
    kiv_event_group *const group = item->p_event_group;
    if (group == nullptr) {
        return removal::has_no_group;
    }
    group->items = g_list_remove_link(group->items, &item->place);
    g_names->remove(*item);
    item->signature = dead_signature; // before the users are counted: one that is not counted sees it
    item->users += item->waits > 0 ? 1 : 0;
    return item->users > 1 ? removal::used : removal::unused;
}

bool kiv::next_group(group_view &view)
{
    const scoped_lock lock(g_lock);
    const kiv_event_group *const group = next_older(g_event_group_db, view.handle, view.serial);
    if (group == nullptr) {
        return false;
    }
    view = {group, group->serial, group->signature, {}};
    std::memcpy(view.pname, group->pname, name_size);
    return true;
}

bool kiv::next_item(const group_view &group, item_view &view)
{
    const scoped_lock lock(g_lock);
    const bool is_same = is_live_group(group.handle) && group.handle->serial == group.serial;
    const kiv_event_item *const item =
        is_same ? next_older(group.handle->items, view.handle, view.serial) : nullptr;
    if (item == nullptr) {
        return false;
    }
    view = {item,         item->p_event_group, item->serial,  item->signature, {},
            item->p_data, item->data_sz,       item->read_fd, item->write_fd};
    std::memcpy(view.pname, item->pname, name_size);
    return true;
}

uint32_t kiv::begin_wait(const kiv_event_wait_entry *entries, uint32_t count, kiv_event_item **items)
{
    uint32_t found = 0;
    {
        const scoped_lock lock(g_lock);
        while (found < count && (items[found] = find_newest(entries[found].pname)) != nullptr) {
            ++found;
        }
        for (uint32_t i = 0; found == count && i < count; ++i) {
            ++items[i]->waits;
        }
    }
    for (uint32_t i = 0; i < count && i <= found; ++i) {
        KIV_LOG_AS("__event_item_find_by_name", INF1, "looking for %s\n", kiv::shown(entries[i].pname));
    }
    return found;
}

void kiv::end_wait(kiv_event_item **items, uint32_t count)
{
    uint32_t ended = 0; // of deleted events, by their last waits
    {
        const scoped_lock lock(g_lock);
        for (uint32_t i = 0; i < count; ++i) {
            if (--items[i]->waits == 0 && items[i]->is_deleted()) {
                items[ended++] = items[i];
            }
        }
    }
    for (uint32_t i = ended; i > 0; --i) {
        leave(*(items[i - 1])); // cppcheck takes "leave(*items[" for a declaration
    }
}

kiv::start_state kiv::exchange_started(bool is_started)
{
    if (is_started) {
        watch_forks();
    }
    const scoped_lock lock(g_lock);
    return {std::exchange(g_module_instialized, is_started ? 1 : 0) != 0, g_event_group_db == nullptr};
}
