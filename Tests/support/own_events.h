// Events that go with their owner, and what tests do with them.
#pragma once

#include <string>
#include <vector>

#include "support/eventually.h"
#include "zol/kiv_events.h"

namespace zol_test
{

/// A group of events that are deleted with it.
class own_events
{
public:
    own_events();
    ~own_events();
    own_events(const own_events &) = delete;
    own_events &operator=(const own_events &) = delete;

    /// Makes an enabled event.
    kiv_event_item *create(const std::string &name, kiv_events_notify_cb notify_cb = nullptr);
    void remove(kiv_event_item *item);

    [[nodiscard]] kiv_event_group *group() const { return group_; }

private:
    kiv_event_group *group_ = nullptr;
    std::vector<kiv_event_item *> items_;
};

struct delivery {
    int32_t status;
    int32_t fired;
    std::string payload;

    bool operator==(const delivery &) const = default;
};

constexpr int32_t no_limit = 0;

/// Waits for one event with so much room for its payload. What is not to be written to is watched over.
delivery wait_for(const std::string &name, uint32_t room = 64, int32_t timeout_us = no_limit);

int32_t notify(kiv_event_item *item, const std::string &payload);

/// The descriptor of an event, and how many bytes are ready there.
int fd_of(const std::string &name);
int bytes_in(const std::string &name);

/// Bytes that no two long payloads have in the same places.
std::string pattern(std::size_t size, unsigned seed = 0);

/// A text as printf() writes it.
std::string printed(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace zol_test
