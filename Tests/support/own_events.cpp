#include "support/own_events.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <random>

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

void own_events::remove(kiv_event_item *item, const char *name)
{
    EXPECT_EQ(name != nullptr ? kiv_events_delete_event_by_name(name) : kiv_events_delete_event(item),
              KIV_OK);
    std::erase(items_, item);
}

delivery delivered(const std::string &payload)
{
    return {KIV_OK, 1, payload};
}

const delivery nothing = {KIV_ERR_TIMEOUT, 0, ""};

std::vector<delivery> wait_for_any(const std::vector<std::string> &names, uint32_t room, int32_t timeout_us)
{
    constexpr char untouched = '\xA5';
    std::vector<std::string> buffers(names.size(), std::string(room + 16, untouched));
    std::vector<kiv_event_wait_entry> entries;
    for (std::size_t i = 0; i < names.size(); ++i) {
        entries.push_back({names[i].c_str(), 0, room > 0 ? buffers[i].data() : nullptr, room, 77});
    }
    const int32_t status =
        kiv_events_wait_for(entries.data(), static_cast<uint32_t>(names.size()), timeout_us);
    std::vector<delivery> deliveries;
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto &[name, fired, data, size, actual_size] = entries[i];
        const std::size_t got = fired != 0 ? actual_size : 0;
        EXPECT_TRUE(fired != 0 || actual_size == 77);
        const bool may_be_torn = status == KIV_OK && fired == 0;
        EXPECT_EQ(buffers[i].find_first_not_of(untouched, may_be_torn ? room : got), std::string::npos);
        deliveries.push_back({status, fired, buffers[i].substr(0, got)});
    }
    return deliveries;
}

delivery wait_for(const std::string &name, uint32_t room, int32_t timeout_us)
{
    return wait_for_any({name}, room, timeout_us)[0];
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
    std::minstd_rand next(seed + 1);
    std::generate(bytes.begin(), bytes.end(), [&next] { return static_cast<char>(next() >> 16); });
    return bytes;
}

} // namespace zol_test
