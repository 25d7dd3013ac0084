// A record of at most PIPE_BUF bytes is in the pipe whole or not at all, and goes straight into the waiter's
// buffer. A longer one comes in pieces while its notifier is blocked in the write; it is gathered in the
// event's inbox, so that a waiter whose time is up leaves it for the next.

#include "record_reader.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

#include "zol/kiv_debug.h"

namespace
{

using kiv::inbox;
using kiv::read_result;
using kiv::time_limit;

constexpr uint32_t header_size = sizeof(kiv::record_header);

// Where a payload goes: as much as there is room for, and the rest nowhere.
struct destination {
    uint8_t *data;
    uint32_t room;
};

// How one read() went.
struct transfer {
    ssize_t result;
    int error;
};

transfer read_some(int fd, uint8_t *data, uint32_t size) noexcept
{
    ssize_t result = -1;
    do {
        result = read(fd, data, size);
    } while (result < 0 && errno == EINTR);
    return {result, result < 0 ? errno : 0};
}

bool is_empty(const transfer &last) noexcept
{
    return last.result < 0 && last.error == EAGAIN;
}

// The next bytes of a part of which got bytes are there already.
transfer read_next(int fd, const destination &to, uint32_t got, uint32_t size) noexcept
{
    if (got < to.room) {
        return read_some(fd, to.data + got, std::min(size, to.room) - got);
    }
    uint8_t nowhere[4096];
    return read_some(fd, nowhere, std::min<uint32_t>(size - got, sizeof nowhere));
}

bool wait_for_bytes(int fd, const time_limit &limit) noexcept
{
    pollfd readable = {fd, POLLIN, 0};
    int ready = -1;
    do {
        ready = poll(&readable, 1, limit.remaining());
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

// Gets a part of a record in, header or payload. An empty pipe is waited for only while a notifier is busy
// filling it: otherwise nothing that belongs to this record will come.
// @param last  How the last read() went, for the log.
read_result receive(const kiv_event_item &item, const destination &to, uint32_t &got, uint32_t size,
                    const time_limit &limit, transfer &last)
{
    bool is_last_look = false;
    while (got < size) {
        last = read_next(item.read_fd, to, got, size);
        if (last.result > 0) {
            got += static_cast<uint32_t>(last.result);
        } else if (!is_empty(last) || is_last_look) {
            return read_result::failed;
        } else if (!item.is_writing.load(std::memory_order_acquire)) {
            is_last_look = true; // it may have finished between the read and the look
        } else if (!wait_for_bytes(item.read_fd, limit)) {
            return read_result::incomplete;
        }
    }
    return read_result::delivered;
}

bool may_come_in_pieces(uint32_t payload_size) noexcept
{
    return payload_size > PIPE_BUF - header_size;
}

// Where the payload of a record goes; the inbox gets room for a long one.
destination choose_destination(inbox &in, const kiv_event_wait_entry &entry)
{
    if (!may_come_in_pieces(in.header.size)) {
        return {static_cast<uint8_t *>(entry.p_data), entry.data_sz};
    }
    if (in.payload_got == 0 && in.payload_room < in.header.size) {
        in.payload.reset();
        in.payload.reset(new (std::nothrow) uint8_t[in.header.size]);
        in.payload_room = in.payload ? in.header.size : 0;
    }
    return {in.payload.get(), in.payload_room};
}

// A record is all there. The inbox is ready for the next.
void deliver(inbox &in, const destination &from, kiv_event_wait_entry &entry)
{
    entry.actual_sz = std::min(entry.data_sz, in.payload_got);
    if (from.data != entry.p_data && entry.actual_sz > 0) {
        std::memcpy(entry.p_data, from.data, entry.actual_sz);
    }
    entry.fired = 1;
    in.start_anew();
}

read_result read_header(kiv_event_item &item, const time_limit &limit)
{
    inbox &in = item.inbox;
    const destination header = {reinterpret_cast<uint8_t *>(&in.header), header_size};
    transfer last = {};
    const read_result result = receive(item, header, in.header_got, header_size, limit, last);
    if (result == read_result::failed) {
        KIV_LOG_ERRR("Failed reading message header - %d bytes from fd (%d), ret=%d, errno %d\n",
                     static_cast<int>(header_size), item.read_fd, static_cast<int>(last.result), last.error);
        in.start_anew();
    }
    return result;
}

read_result report_payload(const kiv_event_item &item, const transfer &last)
{
    KIV_LOG_ERRR("Failed reading %d bytes from fd (%d), ret=%d, errno %d\n",
                 static_cast<int>(item.inbox.header.size), item.read_fd, static_cast<int>(last.result),
                 last.error);
    return read_result::failed;
}

// What stands in the pipe is no record, so the length is not to be trusted: what is there is delivered.
read_result read_misfit(kiv_event_item &item, kiv_event_wait_entry &entry)
{
    inbox &in = item.inbox;
    const destination to = {static_cast<uint8_t *>(entry.p_data), entry.data_sz};
    transfer last = {};
    while (in.payload_got < in.header.size && last.result >= 0) {
        last = read_next(item.read_fd, to, in.payload_got, in.header.size);
        in.payload_got += last.result > 0 ? static_cast<uint32_t>(last.result) : 0;
        if (last.result == 0) {
            break;
        }
    }
    if (in.payload_got == 0 && in.header.size > 0) {
        in.start_anew();
        return report_payload(item, last);
    }
    deliver(in, to, entry);
    return read_result::delivered;
}

read_result read_payload(kiv_event_item &item, kiv_event_wait_entry &entry, const time_limit &limit)
{
    inbox &in = item.inbox;
    const destination to = choose_destination(in, entry);
    transfer last = {};
    const read_result result = receive(item, to, in.payload_got, in.header.size, limit, last);
    if (result == read_result::failed) {
        in.discard();
        return report_payload(item, last);
    }
    if (result == read_result::incomplete) {
        return result;
    }
    if (to.data == nullptr && may_come_in_pieces(in.header.size)) {
        KIV_LOG_ERRR("No memory for the %u bytes that event %s was notified with: they are lost\n",
                     in.header.size, item.pname);
        in.start_anew();
        return read_result::failed;
    }
    deliver(in, to, entry);
    return result;
}

} // namespace

kiv::read_result kiv::read_record(kiv_event_item &item, kiv_event_wait_entry &entry, const time_limit &limit)
{
    std::unique_lock<std::timed_mutex> reading(item.reading, std::defer_lock);
    if (!limit.take(reading)) { // another reader is at a long record
        return read_result::incomplete;
    }
    if (item.inbox.header_got < header_size) {
        if (const read_result result = read_header(item, limit); result != read_result::delivered) {
            return result;
        }
    }
    const bool is_record = item.inbox.header.magic == record_magic;
    KIV_ASSERT(is_record);
    return is_record ? read_payload(item, entry, limit) : read_misfit(item, entry);
}
