// The scripted tests, with a listener on a thread of its own.

#include <pthread.h>

#include <cinttypes>
#include <cstdio>

#include "events_test.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"
#include "zol/kiv_thread.h"

using kiv::events_test::id_of;
using kiv::events_test::listener_info;
using kiv::events_test::notify_text;
using kiv::events_test::num_events;
using kiv::events_test::text_size;

namespace
{

constexpr int32_t wait_timeout_us = 10'000'000;
constexpr int32_t disabled_cycles = 10;
constexpr char group_name[] = "event_group_001";

// Of static duration: a listener that cannot be joined goes on using them.
listener_info g_listener_info;
kiv_event_item *ev_item[2][num_events]; // of __test01 and __test02
kiv_event_wait_entry event[num_events]; // of __test02
char name[num_events][text_size];       // of __test02
pthread_attr_t g_attr;
pthread_t g_listener;

void format_name(char (&to)[text_size], int32_t index)
{
    std::snprintf(to, sizeof to, "%s_%d", "event_item", index);
}

// Long and short texts take turns, so that a remainder of a longer record would show in the next one.
void format_text(char (&to)[text_size], const kiv_event_item *item, int32_t index, int32_t cycle)
{
    std::snprintf(to, sizeof to, "event_item0x%" PRIxPTR "_test_msg%04d_%s", id_of(item), index,
                  cycle % 2 == 0 ? "lllooonnnggg!!!" : "short");
}

int start_listener(int32_t iterations)
{
    pthread_attr_init(&g_attr);
    pthread_attr_setdetachstate(&g_attr, PTHREAD_CREATE_JOINABLE);
    g_listener_info.count = num_events;
    g_listener_info.iterations = iterations;
    g_listener_info.timeout = wait_timeout_us;
    g_listener_info.received = 0;
    g_listener_info.ended = false;
    const int error = pthread_create(&g_listener, &g_attr, kiv::events_test::__listener, &g_listener_info);
    pthread_attr_destroy(&g_attr);
    return error;
}

// Keeps the notifier from running so far ahead that a pipe fills up, which nobody would empty any more if the
// listener gave up. @return True while the listener is there.
bool wait_for_listener(int32_t cycle)
{
    constexpr int64_t far_ahead = 256; // records of one event; a pipe holds several times as many
    while (!g_listener_info.ended && cycle - g_listener_info.received / num_events > far_ahead) {
        kiv_thread_sleep(1000);
    }
    return !g_listener_info.ended;
}

kiv_event_group *create_group(const char *test)
{
    kiv_event_group *group = nullptr;
    if (const int32_t status = kiv_events_create_group(group_name, &group); status != KIV_OK) {
        KIV_LOG_AS(test, ERRR, "failed creating event group err=%d\n", status);
    } else {
        KIV_LOG_AS(test, INF1, "event group created, ID = %" PRIdPTR "\n", id_of(group));
    }
    return group;
}

kiv_event_item *create_item(const char *test, const char *item_name, kiv_event_group *group)
{
    kiv_event_item *item = nullptr;
    KIV_LOG_AS(test, INF1, "creating event %s\n", item_name);
    if (const int32_t status = kiv_events_create_event(item_name, nullptr, group, &item); status != KIV_OK) {
        KIV_LOG_AS(test, ERRR, "create event failed err=%d\n", status);
    } else {
        KIV_LOG_AS(test, INF1, "created event (ID=%" PRIdPTR ")\n", id_of(item));
    }
    return item;
}

void notify_item(const char *test, kiv_event_item *item, const char *text)
{
    if (const int32_t status = notify_text(item, text); status != KIV_OK) {
        KIV_LOG_AS(test, ERRR, "notify event failed err=%d\n", status);
    }
}

// @return True when every event that could be created is enabled.
bool create_enabled_items(const char *test, kiv_event_group *group)
{
    for (int32_t index = 0; index < num_events; ++index) {
        format_name(g_listener_info.names[index], index);
        kiv_event_item *const item = create_item(test, g_listener_info.names[index], group);
        ev_item[0][index] = item;
        if (item == nullptr) { // the listener will report that this event does not come
            continue;
        }
        if (const int32_t status = kiv_events_set_enable_event(item, 1); status != KIV_OK) {
            KIV_LOG_AS(test, ERRR, "failed setting enable mode, err %d\n", status);
            return false;
        }
    }
    return true;
}

void notify_enabled_items(const char *test, int32_t iterations)
{
    int32_t number = 0;
    for (int32_t cycle = 0; cycle < iterations; ++cycle) {
        if (!wait_for_listener(cycle)) {
            KIV_LOG_AS(test, ERRR, "the listener has given up, %d cycles are not sent\n", iterations - cycle);
            return;
        }
        for (int32_t index = 0; index < num_events; ++index) {
            kiv_event_item *const item = ev_item[0][index];
            char text[text_size];
            format_text(text, item, index, cycle);
            KIV_LOG_AS(test, INF1, "calling notify for event %" PRIdPTR " (%s), %d\n", id_of(item),
                       g_listener_info.names[index], ++number);
            notify_item(test, item, text);
        }
    }
}

// The test gives these events no callback and does not enable them: what is sent to them must not arrive.
void create_disabled_items(const char *test, char (&text)[text_size])
{
    kiv_event_group *const group = create_group(test);
    for (int32_t index = 0; index < num_events; ++index) {
        format_name(name[index], index);
        ev_item[1][index] = create_item(test, name[index], group);
        event[index] = {name[index], 0, text, sizeof text, 0};
    }
}

void notify_disabled_items(const char *test)
{
    for (int32_t cycle = 0; cycle < disabled_cycles; ++cycle) {
        for (int32_t index = 0; index < num_events; ++index) {
            char text[text_size];
            format_text(text, ev_item[1][index], index, cycle);
            notify_item(test, ev_item[1][index], text);
        }
    }
}

} // namespace

bool kiv::events_test::__test01(int32_t iterations)
{
    if (!create_enabled_items(__func__, create_group(__func__))) {
        return false;
    }
    if (const int error = start_listener(iterations); error != 0) {
        KIV_LOG_ERRR("failed creating listener thread err=%d\n", error);
        return false;
    }
    notify_enabled_items(__func__, iterations);
    if (pthread_join(g_listener, nullptr) != 0) {
        KIV_LOG_ERRR("failed joining listener thread 0x%lx!\n", static_cast<unsigned long>(g_listener));
        return false;
    }
    return g_listener_info.failed == 0;
}

bool kiv::events_test::__test02()
{
    char text[text_size];
    create_disabled_items(__func__, text);
    notify_disabled_items(__func__);
    KIV_LOG_PRNT("\n");
    const int32_t status = kiv_events_wait_for(event, num_events, wait_timeout_us);
    if (status != KIV_ERR_TIMEOUT) {
        KIV_LOG_ERRR("waitfor didn't timed out it returned err %d\n", status);
        return false;
    }
    KIV_LOG_INF1("Timeout waiting for events\n");
    return true;
}

bool kiv::events_test::__create_delete_ev_group_test(int32_t count)
{
    for (int32_t cycle = 1; cycle <= count; ++cycle) {
        KIV_LOG_INF1(" ### test cycle [%d/%d]\n", cycle, count);
        kiv_event_group *const group = create_group(__func__);
        if (group == nullptr) {
            return false;
        }
        if (const int32_t status = kiv_events_delete_group(group); status != KIV_OK) {
            std::printf("delete group failed err=%d\n", status);
            return false;
        }
    }
    return true;
}
