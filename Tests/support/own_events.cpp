#include "support/own_events.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "zol/kiv_status.h"

namespace zol_test
{

own_events::own_events()
{
    EXPECT_EQ(kiv_events_create_group("own", &group_), KIV_OK);
}

own_events::~own_events()
{
    for (kiv_event_item *const item : items_) {
        EXPECT_EQ(kiv_events_delete_event(item), KIV_OK);
    }
    EXPECT_EQ(kiv_events_delete_group(group_), KIV_OK);
}

kiv_event_item *own_events::create(const std::string &name, kiv_events_notify_cb notify_cb)
{
    kiv_event_item *item = nullptr;
    EXPECT_EQ(kiv_events_create_event(name.c_str(), notify_cb, group_, &item), KIV_OK);
    EXPECT_EQ(kiv_events_set_enable_event(item, 1), KIV_OK);
    items_.push_back(item);
    return item;
}

void own_events::remove(kiv_event_item *item)
{
    EXPECT_EQ(kiv_events_delete_event(item), KIV_OK);
    std::erase(items_, item);
}

delivery wait_for(const std::string &name, uint32_t room, int32_t timeout_us)
{
    constexpr char untouched = '\xA5';
    std::string buffer(room + 16, untouched);
    kiv_event_wait_entry entry = {name.c_str(), 0, room > 0 ? buffer.data() : nullptr, room, 77};
    const int32_t status = kiv_events_wait_for(&entry, 1, timeout_us);
    const std::size_t got = entry.fired != 0 ? entry.actual_sz : 0;
    EXPECT_TRUE(entry.fired != 0 || entry.actual_sz == 77);
    const bool was_cut_off = status == KIV_OK && entry.fired == 0; // a part of a record may be in the buffer
    EXPECT_EQ(buffer.find_first_not_of(untouched, was_cut_off ? room : got), std::string::npos);
    return {status, entry.fired, buffer.substr(0, got)};
}

int32_t notify(kiv_event_item *item, const std::string &payload)
{
    return kiv_events_notify(item, payload.data(), static_cast<uint32_t>(payload.size()), 0);
}

int fd_of(const std::string &name)
{
    int32_t fd = -1;
    EXPECT_EQ(kiv_events_get_event_fd(name.c_str(), &fd), KIV_OK);
    return fd;
}

int bytes_in(const std::string &name)
{
    int bytes = -1;
    EXPECT_EQ(ioctl(fd_of(name), FIONREAD, &bytes), 0);
    return bytes;
}

std::string pattern(std::size_t size, unsigned seed)
{
    std::string bytes(size, '\0');
    unsigned state = seed + 1;
    std::generate(bytes.begin(), bytes.end(), [&state] {
        state = state * 1'664'525 + 1'013'904'223;
        return static_cast<char>(state >> 24);
    });
    return bytes;
}

std::string printed(const char *format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

} // namespace zol_test
