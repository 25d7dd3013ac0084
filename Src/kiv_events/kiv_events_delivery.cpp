// Notification and waiting: one record per notification through the event's pipe.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "common/call_trace.h"
#include "record_reader.h"
#include "registry.h"
#include "time_limit.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using kiv::call_trace;
using kiv::record_header;
using kiv::time_limit;

namespace
{

constexpr uint32_t largest_payload = UINT32_MAX - sizeof(record_header);

// Holds off other notifications of the event.
using notify_lock = std::scoped_lock<std::recursive_mutex>;

uintptr_t number_of(const void *pointer) noexcept
{
    return reinterpret_cast<uintptr_t>(pointer);
}

bool is_sendable(const void *payload, uint32_t size) noexcept
{
    return size <= largest_payload && (payload != nullptr || size == 0);
}

int32_t refuse_payload(const void *payload, uint32_t size)
{
    KIV_LOG_ERRR("%s payload of %u bytes, at most %u can be sent\n",
                 payload == nullptr ? "Null" : "Too long a", size, largest_payload);
    return KIV_ERR_INVALID_PARAM;
}

// Makes sure that the container holds a record of this size. It never shrinks.
bool make_room(kiv_event_item &item, uint32_t total)
{
    const uint32_t previous = item.data_sz;
    if (total <= previous) {
        return true;
    }
    KIV_LOG_INF1("Allocating %d bytes (prev container sz %d bytes)\n", static_cast<int>(total),
                 static_cast<int>(previous));
    delete[] item.p_data.exchange(nullptr);
    item.data_sz = 0;
    item.used = 0;
    auto *const container = new (std::nothrow) uint8_t[total]();
    if (container == nullptr) {
        KIV_LOG_ERRR("Failed allocating %d bytes for message container\n", static_cast<int>(total));
        return false;
    }
    item.p_data = container;
    item.data_sz = total;
    return true;
}

// Puts a record into the container; all behind it is zero, as it was before the last record.
void assemble(kiv_event_item &item, const void *payload, uint32_t size)
{
    const auto total = static_cast<uint32_t>(sizeof(record_header) + size);
    uint8_t *const container = item.p_data.load(std::memory_order_relaxed);
    new (container) record_header{kiv::record_magic, size};
    if (size > 0) {
        std::memcpy(container + sizeof(record_header), payload, size);
    }
    if (item.used > total) {
        std::memset(container + total, 0, item.used - total);
    }
    item.used = total;
}

// Between the system call and the caller there should be no return too many: after the kernel has been
// entered, processors that guard their return predictions get each one wrong.
#define STRAIGHT_TO_THE_CALLER [[gnu::always_inline]] inline

// Writes a record whole: a write that a signal cut short is gone on with.
STRAIGHT_TO_THE_CALLER ssize_t write_record(kiv_event_item &item, uint32_t total) noexcept
{
    const uint8_t *const record = item.p_data.load(std::memory_order_relaxed);
    uint32_t written = 0;
    ssize_t result = 0;
    const bool may_block_halfway = total > PIPE_BUF;
    if (may_block_halfway) {
        item.is_writing.store(true, std::memory_order_release);
    }
    do {
        result = write(item.write_fd, record + written, total - written);
        written += result > 0 ? static_cast<uint32_t>(result) : 0;
    } while (written < total && (result > 0 || (result < 0 && errno == EINTR)));
    if (may_block_halfway) {
        item.is_writing.store(false, std::memory_order_release);
    }
    return result;
}

bool is_taken_by_callback(kiv_event_item &item, const void *payload, uint32_t size, uint32_t userArg)
{
    return item.notify_cb != nullptr && item.notify_cb(item.p_data, payload, size, userArg) == 0;
}

STRAIGHT_TO_THE_CALLER
int32_t __kiv_events_notify(kiv_event_item *item, const void *payload, uint32_t size, uint32_t userArg)
{
    const call_trace trace;
    if (!__event_item_is_valid(item)) {
        KIV_LOG_ERRR("Invalid event item handle\n");
        return KIV_ERR_INVALID_PARAM;
    }
    if (!is_sendable(payload, size)) {
        return refuse_payload(payload, size);
    }
    const int32_t enabled = item->enabled.load(std::memory_order_relaxed);
    if (enabled == 0) {
        KIV_LOG_INF1("Dropping notification since the event is not enabled yet %d\n", enabled);
        return KIV_OK;
    }
    const notify_lock lock(item->notifying);
    if (is_taken_by_callback(*item, payload, size, userArg)) {
        return KIV_OK;
    }
    const auto total = static_cast<uint32_t>(sizeof(record_header) + size);
    if (!make_room(*item, total)) {
        return KIV_ERR_NO_MEMORY;
    }
    KIV_LOG_INF1("Copy %d bytes into event 0x%" PRIxPTR " (%" PRIdPTR "), dst 0x%" PRIxPTR "\n",
                 static_cast<int>(total), number_of(item), number_of(item), number_of(item->p_data));
    assemble(*item, payload, size);
    if (const ssize_t result = write_record(*item, total); result < 1) {
        KIV_LOG_ERRR("Failed writing to the pipe event=%" PRIdPTR " ret=%d, errno=%d!\n", number_of(item),
                     static_cast<int>(result), errno);
        return KIV_ERR_SYSTEM;
    }
    return KIV_OK;
}

// The events of one wait and what poll() needs to know of them. Up to 64 of them need no memory.
class watch_list
{
public:
    watch_list() noexcept = default;
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

    /// Watches the first count of the items.
    void watch(uint32_t count) noexcept
    {
        count_ = count;
        for (uint32_t i = 0; i < count; ++i) {
            fds_[i] = {__event_item_get_read_fd(items_[i]), POLLIN | POLLPRI | POLLERR | POLLHUP, 0};
        }
    }

    /// @return What poll() returned; an interrupted one is taken up again.
    [[nodiscard]] int poll_all(const time_limit &limit) noexcept
    {
        int ready = poll(fds_, count_, limit.milliseconds());
        while (ready < 0 && errno == EINTR) {
            ready = poll(fds_, count_, limit.remaining());
        }
        return ready;
    }

    [[nodiscard]] kiv_event_item **items() noexcept { return items_; }
    [[nodiscard]] unsigned events_of(uint32_t index) const noexcept
    {
        return static_cast<unsigned short>(fds_[index].revents);
    }

private:
    static constexpr uint32_t few = 64;

    kiv_event_item *few_items_[few];
    pollfd few_fds_[few];
    std::unique_ptr<kiv_event_item *[]> many_items_;
    std::unique_ptr<pollfd[]> many_fds_;
    kiv_event_item **items_ = few_items_;
    pollfd *fds_ = few_fds_;
    uint32_t count_ = 0;
};

bool are_waitable(const kiv_event_wait_entry *entries, uint32_t count)
{
    if (entries == nullptr || count == 0) {
        KIV_LOG_ERRR("No events to wait for (entries %s, count %u)\n", entries == nullptr ? "null" : "given",
                     count);
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (entries[i].p_data == nullptr && entries[i].data_sz > 0) {
            KIV_LOG_ERRR("Null buffer of %u bytes in entry %u\n", entries[i].data_sz, i);
            return false;
        }
    }
    return true;
}

// Takes a record of each event that is ready. @return Whether the wait is over: false when the time was up in
// the middle of long records, and of nothing else.
bool read_ready(const watch_list &watched, kiv_event_item *const *items, kiv_event_wait_entry *entries,
                uint32_t count, const time_limit &limit)
{
    bool any_ended = false;
    bool any_incomplete = false;
    for (uint32_t i = 0; i < count; ++i) {
        const unsigned events = watched.events_of(i);
        KIV_LOG_INF1("event %s, revents 0x%x\n", entries[i].pname, events);
        if ((events & (POLLIN | POLLPRI)) != 0) {
            const bool ended = kiv::read_record(*items[i], entries[i], limit) != kiv::read_result::incomplete;
            any_ended |= ended;
            any_incomplete |= !ended;
        }
    }
    return any_ended || !any_incomplete;
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
    return __kiv_events_notify(__event_item_find_by_name(name), payload, size, userArg);
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
    const kiv_event_item *const item = __event_item_find_by_name(name);
    if (!__event_item_is_valid(item)) {
        KIV_LOG_ERRR("Invalid event item handle\n");
        return KIV_ERR_INVALID_PARAM;
    }
    *out = __event_item_get_read_fd(item);
    KIV_LOG_INF1("event %s, fd %d\n", name, *out);
    return KIV_OK;
}

int32_t kiv_events_wait_for(kiv_event_wait_entry *entries, uint32_t count, int32_t timeoutUs)
{
    const call_trace trace;
    if (!are_waitable(entries, count)) {
        return KIV_ERR_INVALID_PARAM;
    }
    watch_list watched;
    if (!watched.make_room(count)) {
        KIV_LOG_ERRR("Failed allocating %d pollfds \n", static_cast<int>(count));
        return KIV_ERR_NO_MEMORY;
    }
    if (const uint32_t found = kiv::find_events(entries, count, watched.items()); found < count) {
        __event_item_is_valid(watched.items()[found]); // says what is wrong with it
        KIV_LOG_ERRR("Invalid event item handle\n");
        return KIV_ERR_INVALID_PARAM;
    }
    watched.watch(count);
    const time_limit limit(timeoutUs);
    const int ready = watched.poll_all(limit);
    if (ready < 0) {
        KIV_LOG_ERRR("Error in poll, ret=0x%x\n", static_cast<unsigned>(ready));
        return KIV_ERR_SYSTEM;
    }
    if (ready == 0 || !read_ready(watched, watched.items(), entries, count, limit)) {
        KIV_LOG_INF1("Timeout waiting for event(s), timeout %d\n", limit.milliseconds());
        return KIV_ERR_TIMEOUT;
    }
    return KIV_OK;
}
