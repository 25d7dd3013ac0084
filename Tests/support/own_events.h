// Events that are deleted with their owner, and short forms of the calls on them.
#pragma once

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/eventually.h"
#include "zol/kiv_events.h"

namespace zol_test
{

/// A group, and events in it. The destructor deletes all of them.
class own_events
{
public:
    own_events();
    ~own_events();
    own_events(const own_events &) = delete;
    own_events &operator=(const own_events &) = delete;

    /// Makes an enabled event.
    kiv_event_item *create(const std::string &name, kiv_events_notify_cb notify_cb = nullptr);
    /// @param name  If given, deletes it by its name.
    void remove(kiv_event_item *item, const char *name = nullptr);

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

delivery delivered(const std::string &payload);
extern const delivery nothing; // came in time

constexpr int32_t no_limit = 0;

/// Waits for events, with the same room for the payload of each. Checks that nothing else is written to.
std::vector<delivery> wait_for_any(const std::vector<std::string> &names, uint32_t room,
                                   int32_t timeout_us = no_limit);
delivery wait_for(const std::string &name, uint32_t room = 64, int32_t timeout_us = no_limit);

int32_t notify(kiv_event_item *item, const std::string &payload);

/// The same in a thread of its own.
inline std::future<int32_t> notify_aside(kiv_event_item *item, const std::string &payload)
{
    return std::async(std::launch::async, [item, payload] { return notify(item, payload); });
}

/// Takes a step again and again in a thread of its own, until the thread's owner ends.
template <typename Step>
std::jthread repeat(Step step)
{
    return std::jthread([step](const std::stop_token &stop) {
        while (!stop.stop_requested()) {
            step();
        }
    });
}

constexpr int pipe_capacity = 65'536;

/// The descriptor of an event, and how many bytes can be read from it.
int fd_of(const std::string &name);
int bytes_in(const std::string &name);

/// Pseudo-random bytes.
std::string pattern(std::size_t size, unsigned seed = 0);

} // namespace zol_test
