// Foreign bytes in an event's pipe: whatever they are, waits end, stay within their buffers, and the next
// notification arrives whole.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_events.h"
#include "zol/kiv_status.h"

// A length of 4 GiB is to find no memory, as on a board.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

namespace
{

void require(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

void write_to(int reader, const uint8_t *data, std::size_t size)
{
    const std::string pipe = "/proc/self/fd/" + std::to_string(reader);
    const kiv::unique_fd writer(open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    require(write(writer.get(), data, size) == static_cast<ssize_t>(size));
}

int bytes_in(int reader)
{
    int bytes = -1;
    require(ioctl(reader, FIONREAD, &bytes) == 0);
    return bytes;
}

kiv_event_wait_entry wait_with_room(std::size_t room)
{
    std::vector<uint8_t> buffer(room); // of just this size, for the sanitizer to guard
    kiv_event_wait_entry entry = {"fuzzed", 0, room > 0 ? buffer.data() : nullptr,
                                  static_cast<uint32_t>(room), 0};
    require(kiv_events_wait_for(&entry, 1, 500) == KIV_OK);
    require(entry.fired == 0 || entry.actual_sz <= room);
    return entry;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static FILE *const silent = std::freopen("/dev/null", "w", stdout);
    require(silent != nullptr);
    if (size < 2) {
        return 0;
    }
    const std::size_t room = data[0] * std::size_t{data[1]};
    kiv_event_group *group = nullptr;
    kiv_event_item *item = nullptr;
    int32_t reader = -1;
    require(kiv_events_create_group("fuzz", &group) == KIV_OK &&
            kiv_events_create_event("fuzzed", nullptr, group, &item) == KIV_OK &&
            kiv_events_set_enable_event(item, 1) == KIV_OK &&
            kiv_events_get_event_fd("fuzzed", &reader) == KIV_OK);
    write_to(reader, data + 2, std::min<std::size_t>(size - 2, 32'768));
    require(kiv_events_notify(item, data, 2, 0) == KIV_OK); // may become the payload of what is there
    for (int left = bytes_in(reader), now = 0; left > 0; left = now) {
        wait_with_room(room);
        now = bytes_in(reader);
        require(now < left);
    }
    require(kiv_events_notify(item, data, static_cast<uint32_t>(size), 0) == KIV_OK);
    require(wait_with_room(size).actual_sz == size);
    require(kiv_events_delete_event(item) == KIV_OK && kiv_events_delete_group(group) == KIV_OK);
    return 0;
}
