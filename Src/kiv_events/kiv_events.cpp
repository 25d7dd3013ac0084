// The registry of event groups and events. One lock guards changes and look-ups of names; it is never held
// while anything is logged, read or written. Handles are looked up without it.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string_view>

#include "common/call_trace.h"
#include "common/immortal.h"
#include "common/intrusive_list.h"
#include "common/log_as.h"
#include "common/mutex.h"
#include "common/text.h"
#include "handle_set.h"
#include "registry.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using kiv::call_trace;
using kiv::number_of;
using kiv::scoped_lock;

namespace
{

constexpr uint32_t group_signature = 0x5A5A0001;
constexpr uint32_t item_signature = 0x5A5A0002;
constexpr uint32_t dead_signature = 0xDEADBEEF;
constexpr std::size_t name_size = sizeof(kiv_event_item::pname);

using name_index = kiv::record_index<kiv_event_item, &kiv_event_item::by_name>;

kiv::mutex g_lock; // guards everything below, the lists of the groups, and the links of all records
int32_t g_module_instialized KIV_GUARDED_BY(g_lock);
GList *g_event_group_db KIV_GUARDED_BY(g_lock);
constinit kiv::immortal<name_index> g_names KIV_GUARDED_BY(g_lock);
uint64_t g_serial KIV_GUARDED_BY(g_lock); // of the newest record

// Of these only changes are guarded by g_lock.
constinit kiv::immortal<kiv::handle_set> g_groups;
constinit kiv::immortal<kiv::handle_set> g_items;

int32_t g_simulation; // atomic

std::string_view key_of(const char *name) noexcept
{
    return {name, strnlen(name, name_size)};
}

std::size_t hash_of(std::string_view name) noexcept
{
    return std::hash<std::string_view>()(name);
}

// The signature of the record behind a handle, without a look at its memory.
uint32_t signature_of(const void *handle) noexcept
{
    if (g_items->contains(handle)) {
        return item_signature;
    }
    return g_groups->contains(handle) ? group_signature : dead_signature;
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

template <typename Record>
void mark_dead(Record &record) noexcept
{
    __atomic_store_n(&record.signature, dead_signature, __ATOMIC_RELAXED); // not to be optimised away
}

void close_end(int32_t &fd, const char *end)
{
    if (const int result = close(fd); result != 0) {
        KIV_LOG_AS("__event_item_free", ERRR, "Failed closing %s fd %d ret %d errno %d\n", end, fd, result,
                   errno);
    }
    fd = -1;
}

void __event_item_free(kiv_event_item *item)
{
    mark_dead(*item);
    close_end(item->read_fd, "read");
    close_end(item->write_fd, "write");
    delete[] item->p_data.load();
    delete item;
}

struct item_freer {
    void operator()(kiv_event_item *item) const { __event_item_free(item); }
};

using unique_item = std::unique_ptr<kiv_event_item, item_freer>;

bool __event_group_is_valid(const kiv_event_group *group)
{
    if (group == nullptr) {
        KIV_LOG_ERRR("Event group is null\n");
        return false;
    }
    const uint32_t signature = signature_of(group);
    if (signature != group_signature) {
        KIV_LOG_ERRR("Event group 0x%" PRIxPTR " does not have a valid signature (0x%x)\n", number_of(group),
                     signature);
        return false;
    }
    return true;
}

// Fills a record and puts it into the registry. @return False when there is no memory.
bool register_group(kiv_event_group &group, const char *name)
{
    group.signature = group_signature;
    kiv::copy_bounded(group.pname, sizeof group.pname, name);
    const scoped_lock lock(g_lock);
    if (!g_groups->add(&group)) {
        return false;
    }
    group.serial = ++g_serial;
    kiv::prepend(g_event_group_db, group, group.place);
    return true;
}

kiv_event_group *__event_group_alloc(const char *name)
{
    std::unique_ptr<kiv_event_group> group(new (std::nothrow) kiv_event_group());
    if (!group || !register_group(*group, name)) {
        KIV_LOG_ERRR("Failed to allocate memory (%d bytes)\n", static_cast<int>(sizeof *group));
        return nullptr;
    }
    return group.release();
}

// Takes a group out of the registry, unless it has events or somebody else has just taken it out.
int32_t __event_group_unregister(kiv_event_group *group)
{
    const scoped_lock lock(g_lock);
    if (!g_groups->contains(group)) {
        return KIV_ERR_INVALID_PARAM;
    }
    if (group->items != nullptr) {
        return KIV_ERR_STATE;
    }
    g_event_group_db = g_list_remove_link(g_event_group_db, &group->place);
    g_groups->remove(group);
    return KIV_OK;
}

void __event_group_free(kiv_event_group *group)
{
    mark_dead(*group);
    delete group;
}

// The two ends of a new pipe; the read end does not block.
bool open_pipe(kiv_event_item &item)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        KIV_LOG_AS("__event_item_alloc", ERRR, "Failed to create pipe.\n");
        return false;
    }
    kiv::unique_fd read_end(fds[0]);
    kiv::unique_fd write_end(fds[1]);
    if (const int result = fcntl(read_end.get(), F_SETFL, O_NONBLOCK); result == -1) {
        const int error = errno;
        read_end.reset();
        write_end.reset();
        KIV_LOG_AS("__event_item_alloc", ERRR, "Failed to fctl fd %d, ret %d errno %d.\n", fds[0], result,
                   error);
        return false;
    }
    item.read_fd = read_end.release();
    item.write_fd = write_end.release();
    KIV_LOG_AS("__event_item_alloc", INF1, "Created 2 fds, read %d, write %d\n", item.read_fd, item.write_fd);
    return true;
}

// @param item  Receives the record, with its pipe, not yet in the registry.
int32_t __event_item_alloc(const char *name, kiv_events_notify_cb notify_cb, unique_item &item)
{
    std::unique_ptr<kiv_event_item> record(new (std::nothrow) kiv_event_item());
    if (!record) {
        KIV_LOG_ERRR("Failed to allocate memory (%d bytes)\n", static_cast<int>(sizeof *record));
        return KIV_ERR_NO_MEMORY;
    }
    record->signature = item_signature;
    kiv::copy_bounded(record->pname, sizeof record->pname, name);
    record->notify_cb = notify_cb;
    if (!open_pipe(*record)) {
        return KIV_ERR_SYSTEM;
    }
    item.reset(record.release());
    return KIV_OK;
}

// Puts an event into the registry, unless its group has been deleted since it was checked.
int32_t __event_group_add_event_item(kiv_event_group *group, kiv_event_item *item)
{
    const scoped_lock lock(g_lock);
    if (!g_groups->contains(group)) {
        return KIV_ERR_INVALID_PARAM;
    }
    if (!g_items->add(item)) {
        return KIV_ERR_NO_MEMORY;
    }
    item->serial = ++g_serial;
    item->p_event_group = group;
    g_names->add(*item, hash_of(key_of(item->pname)));
    kiv::prepend(group->items, *item, item->place);
    return KIV_OK;
}

// What became of an event that was to be taken out of its group.
enum class removal { done, has_no_group, is_gone };

// Looks again: somebody else may have taken it out since it was checked.
removal take_out(kiv_event_item *item)
{
    const scoped_lock lock(g_lock);
    if (!g_items->contains(item)) {
        return removal::is_gone;
    }
    kiv_event_group *const group = item->p_event_group;
    if (group == nullptr) {
        return removal::has_no_group;
    }
    group->items = g_list_remove_link(group->items, &item->place);
    g_names->remove(*item);
    g_items->remove(item);
    return removal::done;
}

removal __event_group_remove_event_item(kiv_event_item *item)
{
    const removal result = take_out(item);
    KIV_ASSERT(result != removal::has_no_group);
    if (result == removal::has_no_group) {
        KIV_LOG_ERRR("Null pointer event-group 0x%" PRIxPTR " event-item=0x%" PRIxPTR "\n",
                     number_of(nullptr), number_of(item));
    }
    return result;
}

int32_t refuse_item(const char *caller)
{
    KIV_LOG_AS(caller, ERRR, "Invalid event item handle\n");
    return KIV_ERR_INVALID_PARAM;
}

int32_t refuse_group(const char *caller)
{
    KIV_LOG_AS(caller, ERRR, "Invalid event group handle\n");
    return KIV_ERR_INVALID_PARAM;
}

int32_t __kiv_events_delete_event(kiv_event_item *item)
{
    const call_trace trace;
    if (!__event_item_is_valid(item)) {
        return refuse_item(__func__);
    }
    switch (__event_group_remove_event_item(item)) {
    case removal::done:
        __event_item_free(item);
        return KIV_OK;
    case removal::has_no_group:
        KIV_LOG_ERRR("Failed removing event item %" PRIdPTR " from group %" PRIdPTR "\n", number_of(item),
                     number_of(nullptr));
        return KIV_ERR_INVALID_PARAM;
    case removal::is_gone:
        break;
    }
    __event_item_is_valid(item); // says what is wrong with it
    return refuse_item(__func__);
}

int32_t __event_item_set_enable(kiv_event_item *item, int32_t enable)
{
    if (!__event_item_is_valid(item)) {
        return refuse_item(__func__);
    }
    item->enabled.store(enable, std::memory_order_relaxed);
    return KIV_OK;
}

// What the dump shows of a group.
struct group_view {
    const kiv_event_group *handle;
    uint64_t serial;
    uint32_t signature;
    char pname[name_size];
};

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

// The newest record of a list that is older than a serial. A walk with it goes on where it was, whatever has
// come and gone meanwhile, and so needs the lock for a moment at a time only.
template <typename Record>
const Record *next_older(const GList *list, uint64_t serial) noexcept
{
    while (list != nullptr && static_cast<const Record *>(list->data)->serial >= serial) {
        list = list->next;
    }
    return list != nullptr ? static_cast<const Record *>(list->data) : nullptr;
}

bool next_group(uint64_t serial, group_view &view)
{
    const scoped_lock lock(g_lock);
    const auto *const group = next_older<kiv_event_group>(g_event_group_db, serial);
    if (group == nullptr) {
        return false;
    }
    view = {group, group->serial, group->signature, {}};
    std::memcpy(view.pname, group->pname, name_size);
    return true;
}

bool next_item(const kiv_event_group *handle, uint64_t serial, item_view &view)
{
    const scoped_lock lock(g_lock);
    const auto *const item =
        g_groups->contains(handle) ? next_older<kiv_event_item>(handle->items, serial) : nullptr;
    if (item == nullptr) {
        return false;
    }
    view = {item,         item->p_event_group, item->serial,  item->signature, {},
            item->p_data, item->data_sz,       item->read_fd, item->write_fd};
    std::memcpy(view.pname, item->pname, name_size);
    return true;
}

void __event_group_print(const group_view &group)
{
    const uintptr_t handle = number_of(group.handle);
    KIV_LOG_PRNT("Event-Group: 0x%08" PRIxPTR " (%" PRIdPTR ")\n", handle, handle);
    KIV_LOG_PRNT("signature: 0x%08x\n", group.signature);
    KIV_LOG_PRNT("pname: %s\n", group.pname);
}

void __event_item_print(const item_view &item)
{
    const uintptr_t handle = number_of(item.handle);
    const uintptr_t container = number_of(item.p_data);
    const uintptr_t group = number_of(item.group);
    KIV_LOG_PRNT("Event-Item: 0x%08" PRIxPTR " (%" PRIdPTR ")\n", handle, handle);
    KIV_LOG_PRNT("signature: 0x%08x\n", item.signature);
    KIV_LOG_PRNT("pname: %s\n", item.pname);
    KIV_LOG_PRNT("p_data: 0x%08" PRIxPTR "(%" PRIdPTR ")\n", container, container);
    KIV_LOG_PRNT("data_sz: %d\n", static_cast<int>(item.data_sz));
    KIV_LOG_PRNT("p_event_group: 0x%08" PRIxPTR " (%" PRIdPTR ")\n", group, group);
    KIV_LOG_PRNT("Read FD: %d, Write FD: %d\n", item.read_fd, item.write_fd);
}

} // namespace

bool __event_item_is_valid(const kiv_event_item *item)
{
    if (item == nullptr) {
        KIV_LOG_ERRR("Event item is null\n");
        return false;
    }
    const uint32_t signature = signature_of(item);
    if (signature != item_signature) {
        KIV_LOG_ERRR("Event item 0x%" PRIxPTR " does not have a valid signature (0x%x)\n", number_of(item),
                     signature);
        return false;
    }
    return true;
}

kiv_event_item *__event_item_find_by_name(const char *name)
{
    KIV_LOG_INF1("looking for %s\n", kiv::shown(name));
    const scoped_lock lock(g_lock);
    return find_newest(name);
}

int32_t __event_item_get_read_fd(const kiv_event_item *item)
{
    return item->read_fd;
}

uint32_t kiv::find_events(const kiv_event_wait_entry *entries, uint32_t count, kiv_event_item **items)
{
    uint32_t found = 0;
    {
        const scoped_lock lock(g_lock);
        while (found < count && (items[found] = find_newest(entries[found].pname)) != nullptr) {
            ++found;
        }
    }
    for (uint32_t i = 0; i < count && i <= found; ++i) {
        KIV_LOG_AS("__event_item_find_by_name", INF1, "looking for %s\n", kiv::shown(entries[i].pname));
    }
    return found;
}

int32_t kiv_events_init(void)
{
    const call_trace trace;
    bool was_empty = true;
    bool was_initialized = false;
    {
        const scoped_lock lock(g_lock);
        was_empty = g_event_group_db == nullptr;
        was_initialized = g_module_instialized != 0;
        g_module_instialized = 1;
    }
    KIV_ASSERT(was_empty);
    if (was_initialized) {
        KIV_LOG_ERRR("Module already initialized\n");
        return KIV_ERR_STATE;
    }
    return KIV_OK;
}

int32_t kiv_events_deinit(void)
{
    const call_trace trace;
    bool was_initialized = false;
    {
        const scoped_lock lock(g_lock);
        was_initialized = g_module_instialized != 0;
        g_module_instialized = 0;
    }
    if (!was_initialized) {
        KIV_LOG_ERRR("Trying to deinitialize uninitialized module\n");
        return KIV_ERR_STATE;
    }
    return KIV_OK;
}

int32_t kiv_events_set_simulator_mode(int32_t on)
{
    __atomic_store_n(&g_simulation, on != 0 ? 1 : 0, __ATOMIC_RELAXED);
    return KIV_OK;
}

int32_t kiv_events_create_group(const char *name, kiv_event_group **out)
{
    const call_trace trace;
    if (name == nullptr) {
        KIV_LOG_ERRR("Invalid name\n");
        return KIV_ERR_INVALID_PARAM;
    }
    if (out == nullptr) {
        KIV_LOG_ERRR("Invalid handle pointer\n");
        return KIV_ERR_INVALID_PARAM;
    }
    kiv_event_group *const group = __event_group_alloc(name);
    if (group == nullptr) {
        KIV_LOG_ERRR("Failed allocating event-group, err %d\n", KIV_ERR_NO_MEMORY);
        return KIV_ERR_NO_MEMORY;
    }
    *out = group;
    return KIV_OK;
}

int32_t kiv_events_delete_group(kiv_event_group *group)
{
    const call_trace trace;
    if (!__event_group_is_valid(group)) {
        return refuse_group(__func__);
    }
    switch (__event_group_unregister(group)) {
    case KIV_OK:
        __event_group_free(group);
        return KIV_OK;
    case KIV_ERR_STATE:
        KIV_LOG_ERRR("Event group 0x%" PRIxPTR " (%s) still has events\n", number_of(group), group->pname);
        return KIV_ERR_STATE;
    default:
        __event_group_is_valid(group); // says what is wrong with it
        return refuse_group(__func__);
    }
}

int32_t kiv_events_create_event(const char *name, kiv_events_notify_cb notify_cb, kiv_event_group *group,
                                kiv_event_item **out)
{
    const call_trace trace;
    if (!__event_group_is_valid(group)) {
        return refuse_group(__func__);
    }
    KIV_ASSERT(out != nullptr);
    if (out == nullptr) {
        return KIV_ERR_INVALID_PARAM;
    }
    if (name == nullptr) {
        KIV_LOG_ERRR("Invalid name\n");
        return KIV_ERR_INVALID_PARAM;
    }
    unique_item item;
    if (const int32_t status = __event_item_alloc(name, notify_cb, item); status != KIV_OK) {
        return status;
    }
    switch (__event_group_add_event_item(group, item.get())) {
    case KIV_OK:
        *out = item.release();
        return KIV_OK;
    case KIV_ERR_NO_MEMORY:
        KIV_LOG_ERRR("Failed to allocate memory (%d bytes)\n", static_cast<int>(sizeof *item));
        return KIV_ERR_NO_MEMORY;
    default:
        __event_group_is_valid(group); // says what is wrong with it
        return refuse_group(__func__);
    }
}

int32_t kiv_events_delete_event(kiv_event_item *item)
{
    const call_trace trace;
    return __kiv_events_delete_event(item);
}

int32_t kiv_events_delete_event_by_name(const char *name)
{
    const call_trace trace;
    return __kiv_events_delete_event(__event_item_find_by_name(name));
}

int32_t kiv_events_set_enable_event(kiv_event_item *item, int32_t enable)
{
    const call_trace trace;
    return __event_item_set_enable(item, enable);
}

int32_t kiv_events_set_enable_event_by_name(const char *name, int32_t enable)
{
    const call_trace trace;
    return __event_item_set_enable(__event_item_find_by_name(name), enable);
}

int32_t kiv_events_status_dump(void)
{
    const call_trace trace;
    group_view group = {nullptr, UINT64_MAX, 0, {}};
    while (next_group(group.serial, group)) {
        KIV_LOG_PRNT("==============================================================\n");
        __event_group_print(group);
        item_view item = {};
        item.serial = UINT64_MAX;
        while (next_item(group.handle, item.serial, item)) {
            KIV_LOG_PRNT("--------------------------------------------------------------\n");
            __event_item_print(item);
        }
    }
    KIV_LOG_PRNT("==============================================================\n");
    return KIV_OK;
}
