// A record of at most PIPE_BUF bytes is in the pipe whole or not at all, and goes straight into the waiter's
// buffer. A longer one arrives in pieces while its notifier is blocked in the write. It is gathered in the
// event's inbox, so that a waiter can turn to other events meanwhile, and leaves it to the next one when its
// time is up.

#include "record_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

#include "cancellation.h"
#include "common/tsan.h"
#include "zol/kiv_debug.h"

namespace
{

using kiv::call_site;
using kiv::inbox;
using kiv::read_result;

constexpr uint32_t header_size = sizeof(kiv::record_header);

// A reader that follows a fast notifier gives way to the other events of its wait after so many bytes.
constexpr uint32_t most_at_a_time = 1 << 20;

// Takes as much of a payload as it has room for. The rest is dropped.
struct destination {
    uint8_t *data;
    uint32_t room;
};

// The outcome of one read().
struct transfer {
    ssize_t result;
    int error;

    [[nodiscard]] bool found_nothing() const noexcept
    {
        return result == 0 || (result < 0 && error == EAGAIN);
    }
};

transfer read_some(int fd, uint8_t *data, uint32_t size) noexcept
{
    const ssize_t result = TEMP_FAILURE_RETRY(read(fd, data, size));
    return {result, result < 0 ? errno : 0};
}

// Continues a partial read: `got` bytes have already arrived.
transfer read_next(int fd, const destination &to, uint32_t got, uint32_t size) noexcept
{
    if (got < to.room) {
        return read_some(fd, to.data + got, std::min(size, to.room) - got);
    }
    uint8_t nowhere[2048];
    return read_some(fd, nowhere, std::min<uint32_t>(size - got, sizeof nowhere));
}

// Reads as much of a header or a payload as has arrived. More is to come only while a notifier is busy writing.
// @param last  Receives the outcome of the last read(), for the log.
read_result receive(const kiv_event_item &item, const destination &to, uint32_t &got, uint32_t size,
                    transfer &last) noexcept
{
    const uint32_t start = got;
    bool is_last_look = false;
    while (got < size) {
        const bool is_writing = item.is_writing.load(std::memory_order_acquire);
        if (is_writing && got - start >= most_at_a_time) {
            return read_result::incomplete;
        }
        last = read_next(item.read_fd, to, got, size);
        if (last.result > 0) {
            got += static_cast<uint32_t>(last.result);
        } else if (!last.found_nothing() || is_last_look) {
            return read_result::failed;
        } else if (item.is_writing.load(std::memory_order_acquire)) {
            return read_result::incomplete;
        } else {
            is_last_look = true; // the notifier may have finished between the read and the look
        }
    }
    return read_result::delivered;
}

bool may_come_in_pieces(uint32_t payload_size) noexcept
{
    return payload_size > PIPE_BUF - header_size;
}

// The inbox gets room for a long record. Where there is no memory for that, as much as fits goes straight into
// the entry's buffer, which is good as long as all of it is in the pipe.
destination choose_destination(inbox &in, const kiv_event_wait_entry &entry) noexcept
{
    const destination entrys = {static_cast<uint8_t *>(entry.p_data), entry.data_sz};
    if (!may_come_in_pieces(in.header.size)) {
        return entrys;
    }
    if (in.payload_got == 0 && in.payload_room < in.header.size) {
        in.free_room(); // first: there may be no memory for both
        in.payload.reset(new (std::nothrow) uint8_t[in.header.size]);
        in.payload_room = in.payload ? in.header.size : 0;
    }
    return in.payload ? destination{in.payload.get(), in.payload_room} : entrys;
}

// Hands a complete record over. The inbox is ready for the next.
void deliver(inbox &in, const destination &from, kiv_event_wait_entry &entry) noexcept
{
    entry.actual_sz = std::min(entry.data_sz, in.payload_got);
    if (from.data != entry.p_data && entry.actual_sz > 0) {
        std::memcpy(entry.p_data, from.data, entry.actual_sz);
    }
    entry.fired = 1;
    in.start_anew();
}

// Drops a record whose end is missing. After any other error a later wait continues the record.
void give_up_torn(inbox &in, const transfer &last) noexcept
{
    if (last.found_nothing()) {
        in.start_anew();
    }
}

read_result read_header(kiv_event_item &item, call_site site)
{
    inbox &in = item.inbox;
    const destination header = {reinterpret_cast<uint8_t *>(&in.header), header_size};
    transfer last = {};
    const read_result result = receive(item, header, in.header_got, header_size, last);
    if (result == read_result::failed) {
        KIV_LOG_AT(site, ERRR, "Failed reading message header - %d bytes from fd (%d), ret=%d, errno %d\n",
                   static_cast<int>(header_size), item.read_fd, static_cast<int>(last.result), last.error);
        give_up_torn(in, last);
    }
    return result;
}

read_result report_payload(kiv_event_item &item, const transfer &last, call_site site)
{
    KIV_LOG_AT(site, ERRR, "Failed reading %d bytes from fd (%d), ret=%d, errno %d\n",
               static_cast<int>(item.inbox.header.size), item.read_fd, static_cast<int>(last.result),
               last.error);
    give_up_torn(item.inbox, last);
    return read_result::failed;
}

// The bytes in the pipe are not a record, so the length cannot be trusted: delivers the bytes that are there.
read_result read_misfit(kiv_event_item &item, kiv_event_wait_entry &entry, call_site site)
{
    inbox &in = item.inbox;
    KIV_LOG_AT(site, ERRR, "Event %s: 0x%08x begins no record, its bytes are delivered as they are\n",
               item.pname, in.header.magic);
    const destination to = {static_cast<uint8_t *>(entry.p_data), entry.data_sz};
    transfer last = {1, 0};
    while (in.payload_got < in.header.size && last.result > 0) {
        last = read_next(item.read_fd, to, in.payload_got, in.header.size);
        in.payload_got += last.result > 0 ? static_cast<uint32_t>(last.result) : 0;
    }
    if (in.payload_got == 0 && in.header.size > 0) {
        return report_payload(item, last, site);
    }
    deliver(in, to, entry);
    return read_result::delivered;
}

read_result read_payload(kiv_event_item &item, kiv_event_wait_entry &entry, call_site site)
{
    inbox &in = item.inbox;
    const destination to = choose_destination(in, entry);
    transfer last = {};
    const read_result result = receive(item, to, in.payload_got, in.header.size, last);
    if (result == read_result::failed) {
        return report_payload(item, last, site);
    }
    if (result == read_result::incomplete) {
        in.is_torn |= !in.payload && in.payload_got > 0; // those bytes are in a buffer of the caller's
        return result;
    }
    if (in.is_torn) {
        KIV_LOG_AT(site, ERRR, "No memory for the %u bytes that event %s was notified with: they are lost\n",
                   in.header.size, item.pname);
        in.start_anew();
        return read_result::failed;
    }
    deliver(in, to, entry);
    return result;
}

} // namespace

kiv::read_result kiv::read_record(kiv_event_item &item, kiv_event_wait_entry &entry, call_site site)
{
    const kiv::cancellation_off uncancelled;
    const scoped_lock lock(item.reading);
    if (item.is_deleted()) {
        return read_result::deleted;
    }
    kiv::take_over(&item);
    if (item.inbox.header_got < header_size) {
        if (const read_result result = read_header(item, site); result != read_result::delivered) {
            return result;
        }
    }
    return KIV_HOLDS_AT(site, item.inbox.header.magic == record_magic) ? read_payload(item, entry, site)
                                                                       : read_misfit(item, entry, site);
}
