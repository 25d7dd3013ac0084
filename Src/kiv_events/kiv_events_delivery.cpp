// Notification and waiting: one record per notification through the event's pipe.

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "cancellation.h"
#include "common/bare_calls.h"
#include "common/text.h"
#include "common/tsan.h"
#include "kiv_debug/call_trace.h"
#include "kiv_debug/log_as.h"
#include "record_reader.h"
#include "registry.h"
#include "time_limit.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using kiv::call_site;
using kiv::call_trace;
using kiv::event_use;
using kiv::number_of;
using kiv::record_header;
using kiv::time_limit;

namespace
{

constexpr uint32_t largest_payload = UINT32_MAX - sizeof(record_header);

bool is_sendable(const void *payload, uint32_t size) noexcept
{
    return size <= largest_payload && (payload != nullptr || size == 0);
}

int32_t refuse_payload(const void *payload, uint32_t size, call_site site)
{
    KIV_LOG_AT(site, ERRR, "%s payload of %u bytes, at most %u can be sent\n",
               payload == nullptr ? "Null" : "Too long a", size, largest_payload);
    return KIV_ERR_INVALID_PARAM;
}

// Puts a record into a container; all behind it is zero, as it was before the last record. The payload may
// lie in the container itself: a callback sees it there, and may send it on.
void put_record(kiv_event_item &item, uint8_t *container, const void *payload, uint32_t size)
{
    const auto total = static_cast<uint32_t>(sizeof(record_header) + size);
    KIV_LOG_AS("__kiv_events_notify", INF1,
               "Copy %d bytes into event 0x%" PRIxPTR " (%" PRIdPTR "), dst 0x%" PRIxPTR "\n",
               static_cast<int>(total), number_of(&item), number_of(&item), number_of(container));
    if (size > 0) {
        std::memmove(container + sizeof(record_header), payload, size);
    }
    new (container) record_header{kiv::record_magic, size};
    if (item.used > total) {
        std::memset(container + total, 0, item.used - total);
    }
    item.used = total;
}

// The same, into a container of just that size, which becomes the event's. @return False when there is no
// memory; then the event has none at all.
[[gnu::cold]] bool grow_and_put_record(kiv_event_item &item, const void *payload, uint32_t size)
{
    const auto total = static_cast<uint32_t>(sizeof(record_header) + size);
    KIV_LOG_AS("__kiv_events_notify", INF1, "Allocating %d bytes (prev container sz %d bytes)\n",
               static_cast<int>(total), static_cast<int>(item.data_sz));
    auto *const container = new (std::nothrow) uint8_t[total]();
    if (container != nullptr) {
        put_record(item, container, payload, size);
    } else {
        KIV_LOG_AS("__kiv_events_notify", ERRR, "Failed allocating %d bytes for message container\n",
                   static_cast<int>(total));
        item.used = 0;
    }
    delete[] item.p_data.exchange(container); // by now nothing is to be taken from it any more
    item.data_sz = container != nullptr ? total : 0;
    return container != nullptr;
}

// Assembles a record in the event's container, which never shrinks.
bool assemble(kiv_event_item &item, const void *payload, uint32_t size)
{
    if (sizeof(record_header) + size > item.data_sz.load(std::memory_order_relaxed)) {
        return grow_and_put_record(item, payload, size);
    }
    put_record(item, item.p_data.load(std::memory_order_relaxed), payload, size);
    return true;
}

// A thread that is cancelled in a write would leave the event locked. Told to ThreadSanitizer, which does not see it.
ssize_t write_uncancelled(kiv_event_item &item, const uint8_t *data, std::size_t size) noexcept
{
    kiv::hand_over(&item);
    return kiv::bare_write(item.write_fd, data, size);
}

// Resumes after EINTR and after a short write. Nobody reads the rest of a record whose event is deleted.
// @return The result of the last write(), or 0 for a record that is not whole because of a deletion.
ssize_t write_record(kiv_event_item &item, uint32_t total) noexcept
{
    const uint8_t *const record = item.p_data.load(std::memory_order_relaxed);
    uint32_t written = 0;
    ssize_t result = 0;
    const bool may_block_halfway = total > PIPE_BUF;
    if (may_block_halfway) {
        item.is_writing.store(true, std::memory_order_release);
    }
    do {
        result = write_uncancelled(item, record + written, total - written);
        written += result > 0 ? static_cast<uint32_t>(result) : 0;
    } while (written < total && (result > 0 || (result < 0 && errno == EINTR)) && !item.is_deleted());
    if (may_block_halfway) {
        item.is_writing.store(false, std::memory_order_release);
    }
    return result > 0 && written < total ? 0 : result;
}

// @return True when the event was deleted before its last record was read. If bytes of it are in the pipe, more
// than the one that wakes up waiters, nobody will read them. If none are, a waiter may have deleted the event
// because of this very record.
bool is_lost(const kiv_event_item &item, ssize_t result) noexcept
{
    int left = 0;
    return item.is_deleted() && (result < 1 || (ioctl(item.read_fd, FIONREAD, &left) == 0 && left > 1));
}

int32_t report_deleted(const kiv_event_item &item, call_site site)
{
    KIV_LOG_AT(site, ERRR, "Event %s was deleted during the call\n", item.pname);
    return KIV_ERR_INVALID_PARAM;
}

bool is_taken_by_callback(kiv_event_item &item, const void *payload, uint32_t size, uint32_t userArg)
{
    if (item.notify_cb == nullptr) {
        return false;
    }
    const kiv::cancellation_off uncancelled;
    return item.notify_cb(item.p_data, payload, size, userArg) == 0;
}

// The notification proper, of an event that is in use by this call.
int32_t send(kiv_event_item &item, const void *payload, uint32_t size, uint32_t userArg, call_site site)
{
    const kiv::scoped_lock no_other_notification(item.notifying);
    if (item.is_deleted()) {
        return report_deleted(item, site);
    }
    if (is_taken_by_callback(item, payload, size, userArg)) {
        return KIV_OK;
    }
    if (!assemble(item, payload, size)) {
        return KIV_ERR_NO_MEMORY;
    }
    const ssize_t result = write_record(item, static_cast<uint32_t>(sizeof(record_header) + size));
    const int error = errno;
    if (is_lost(item, result)) {
        return report_deleted(item, site);
    }
    if (result < 1) {
        KIV_LOG_AT(site, ERRR, "Failed writing to the pipe event=%" PRIdPTR " ret=%d, errno=%d!\n",
                   number_of(&item), static_cast<int>(result), error);
        return KIV_ERR_SYSTEM;
    }
    return KIV_OK;
}

int32_t __kiv_events_notify(kiv_event_item *item, const void *payload, uint32_t size, uint32_t userArg)
{
    const call_trace trace;
    const event_use use = kiv::use_event(item);
    if (!use) {
        __event_item_is_valid(item); // says what is wrong with it
        KIV_LOG_ERRR("Invalid event item handle\n");
        return KIV_ERR_INVALID_PARAM;
    }
    if (!is_sendable(payload, size)) {
        return refuse_payload(payload, size, call_site::here());
    }
    const int32_t enabled = item->enabled.load(std::memory_order_relaxed);
    if (enabled == 0) {
        KIV_LOG_INF1("Dropping notification since the event is not enabled yet %d\n", enabled);
        return KIV_OK;
    }
    return send(*item, payload, size, userArg, call_site::here());
}

// The events of one wait and what poll() needs to know of them. Up to 64 of them need no memory.
class watch_list
{
public:
    watch_list() noexcept = default;
    ~watch_list() { release(); }
    watch_list(const watch_list &) = delete;
    watch_list &operator=(const watch_list &) = delete;

    [[nodiscard]] bool make_room(uint32_t count) noexcept
    {
        if (count <= few) {
            return true;
        }
        many_items_.reset(new (std::nothrow) kiv_event_item *[count]);
        many_fds_.reset(new (std::nothrow) pollfd[count]);
        items_ = many_items_.get();
        fds_ = many_fds_.get();
        return items_ != nullptr && fds_ != nullptr;
    }

    /// Watches the events of as many entries. @return False, and a line in the log, when there is not one for
    /// each.
    [[nodiscard]] bool watch(const kiv_event_wait_entry *entries, uint32_t count)
    {
        if (const uint32_t found = kiv::begin_wait(entries, count, items_); found < count) {
            return __event_item_is_valid(items_[found]); // says what is wrong with it
        }
        count_ = count;
        for (uint32_t i = 0; i < count; ++i) {
            fds_[i] = {__event_item_get_read_fd(items_[i]), POLLIN | POLLPRI | POLLERR | POLLHUP, 0};
        }
        return true;
    }

    /// The one place where a waiting thread may be cancelled. @return The result of poll().
    [[nodiscard]] int poll_all(int milliseconds)
    {
        return kiv::call_with_clean_up([&] { return poll(fds_, count_, milliseconds); },
                                       [](void *list) { static_cast<watch_list *>(list)->release(); }, this);
    }

    [[nodiscard]] kiv_event_item &item(uint32_t index) const noexcept { return *items_[index]; }
    [[nodiscard]] unsigned events_of(uint32_t index) const noexcept
    {
        return static_cast<unsigned short>(fds_[index].revents);
    }

private:
    static constexpr uint32_t few = 64;

    void release()
    {
        kiv::end_wait(items_, std::exchange(count_, 0));
        many_items_.reset();
        many_fds_.reset();
    }

    kiv_event_item *few_items_[few];
    pollfd few_fds_[few];
    std::unique_ptr<kiv_event_item *[]> many_items_;
    std::unique_ptr<pollfd[]> many_fds_;
    kiv_event_item **items_ = few_items_;
    pollfd *fds_ = few_fds_;
    uint32_t count_ = 0;
};

bool are_waitable(const kiv_event_wait_entry *entries, uint32_t count, call_site site)
{
    if (entries == nullptr || count == 0) {
        KIV_LOG_AT(site, ERRR, "No events to wait for (entries %s, count %u)\n",
                   entries == nullptr ? "null" : "given", count);
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (entries[i].p_data == nullptr && entries[i].data_sz > 0) {
            KIV_LOG_AT(site, ERRR, "Null buffer of %u bytes in entry %u\n", entries[i].data_sz, i);
            return false;
        }
    }
    return true;
}

// The outcomes of a look at the events of a wait, the weakest first: a delivery outweighs a deletion, and both
// outweigh a long record that is still incomplete.
enum class look { incomplete, ended, deleted, delivered };

look outcome_of(kiv::read_result result) noexcept
{
    switch (result) {
    case kiv::read_result::delivered:
        return look::delivered;
    case kiv::read_result::incomplete:
        return look::incomplete;
    case kiv::read_result::deleted:
        return look::deleted;
    case kiv::read_result::failed:
        break;
    }
    return look::ended;
}

// Takes a record of each event that is ready.
look read_ready(const watch_list &watched, kiv_event_wait_entry *entries, uint32_t count, call_site site)
{
    look outcome = look::incomplete;
    bool any_ready = false;
    for (uint32_t i = 0; i < count; ++i) {
        const unsigned events = watched.events_of(i);
        KIV_LOG_AT(site, INF1, "event %s, revents 0x%x\n", entries[i].pname, events);
        if ((events & (POLLIN | POLLPRI)) != 0) {
            any_ready = true;
            const look one = outcome_of(kiv::read_record(watched.item(i), entries[i], site));
            if (one == look::deleted && outcome < look::deleted) {
                report_deleted(watched.item(i), site);
            }
            outcome = std::max(outcome, one);
        }
    }
    return any_ready ? outcome : look::ended;
}

// Polls until a record has come or the time is up. While a long record arrives in pieces, the other events are
// served too.
int32_t wait_for_any(watch_list &watched, kiv_event_wait_entry *entries, uint32_t count,
                     const time_limit &limit, call_site site)
{
    for (int ms = limit.milliseconds();; ms = limit.remaining()) {
        const int ready = watched.poll_all(ms);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0) {
            KIV_LOG_AT(site, ERRR, "Error in poll, ret=0x%x\n", static_cast<unsigned>(ready));
            return KIV_ERR_SYSTEM;
        }
        const look seen = ready == 0 ? look::incomplete : read_ready(watched, entries, count, site);
        if (seen != look::incomplete) {
            return seen == look::deleted ? KIV_ERR_INVALID_PARAM : KIV_OK;
        }
        if (ready == 0 || ms == 0) {
            KIV_LOG_AT(site, INF1, "Timeout waiting for event(s), timeout %d\n", limit.milliseconds());
            return KIV_ERR_TIMEOUT;
        }
    }
}

} // namespace

int32_t kiv_events_notify(kiv_event_item *item, const void *payload, uint32_t size, uint32_t userArg)
{
    const call_trace trace;
    return __kiv_events_notify(item, payload, size, userArg);
}

int32_t kiv_events_notify_by_name(const char *name, const void *payload, uint32_t size, uint32_t userArg)
{
    const call_trace trace;
    const event_use use = __event_item_find_by_name(name);
    return __kiv_events_notify(use.get(), payload, size, userArg);
}

int32_t kiv_events_get_event_fd(const char *name, int32_t *out)
{
    const call_trace trace;
    if (name == nullptr) {
        KIV_LOG_ERRR("Trying to get the fd for event 'NULL'.\n");
        return KIV_ERR_INVALID_PARAM;
    }
    if (out == nullptr) {
        KIV_LOG_ERRR("Invalid output container.\n");
        return KIV_ERR_INVALID_PARAM;
    }
    const event_use use = __event_item_find_by_name(name);
    if (!__event_item_is_valid(use.get())) {
        KIV_LOG_ERRR("Invalid event item handle\n");
        return KIV_ERR_INVALID_PARAM;
    }
    *out = __event_item_get_read_fd(use.get());
    KIV_LOG_INF1("event %s, fd %d\n", name, *out);
    return KIV_OK;
}

int32_t kiv_events_wait_for(kiv_event_wait_entry *entries, uint32_t count, int32_t timeoutUs)
{
    const call_trace trace;
    const call_site site = call_site::here();
    if (!are_waitable(entries, count, site)) {
        return KIV_ERR_INVALID_PARAM;
    }
    watch_list watched;
    if (!watched.make_room(count)) {
        KIV_LOG_ERRR("Failed allocating %d pollfds \n", static_cast<int>(count));
        return KIV_ERR_NO_MEMORY;
    }
    if (!watched.watch(entries, count)) {
        KIV_LOG_ERRR("Invalid event item handle\n");
        return KIV_ERR_INVALID_PARAM;
    }
    return wait_for_any(watched, entries, count, time_limit(timeoutUs), site);
}
