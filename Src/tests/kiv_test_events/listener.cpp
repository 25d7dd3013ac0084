// A thread that waits for events and logs what it receives.

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "events_test.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

void *kiv::events_test::__listener(void *argument)
{
    auto *const info = static_cast<listener_info *>(argument);
    info->failed = 1; // until the end shows otherwise
    std::printf("Going to wait for %d events %d times\n", info->count, info->iterations);
    const int64_t total = int64_t{info->count} * info->iterations;
    int64_t received = 0;
    int32_t status = KIV_OK;
    char text[text_size]; // shared by all entries, so of several events in a pass the last text is shown
    // A wait that times out is a pass too, so that a listener whose events do not come ends.
    for (int64_t passes = 0; received < total && passes < total; ++passes) {
        for (int32_t i = 0; i < info->count; ++i) {
            KIV_LOG_INF1("preparing event %s\n", info->names[i]);
            info->entries[i] = {info->names[i], 0, text, sizeof text, 0};
        }
        status = kiv_events_wait_for(info->entries, static_cast<uint32_t>(info->count), info->timeout);
        if (status != KIV_OK) {
            KIV_LOG_ERRR("waitfor returned err %d\n", status);
            continue;
        }
        for (int32_t i = 0; i < info->count; ++i) {
            const kiv_event_wait_entry &entry = info->entries[i];
            if (entry.fired != 0) {
                info->received = ++received;
                KIV_LOG_INF1("### got %" PRId64 " events ###\n", received);
                KIV_LOG_INF1("Got event[%d]:%.*s, max expected len %d bytes, actual len %d bytes\n", i,
                             // the notifier need not have sent a final zero
                             static_cast<int>(strnlen(text, entry.actual_sz)), text,
                             static_cast<int>(entry.data_sz), static_cast<int>(entry.actual_sz));
            }
        }
    }
    info->failed = received == total && status == KIV_OK ? 0 : 1;
    info->ended = true;
    return nullptr;
}

int32_t kiv::events_test::notify_text(kiv_event_item *item, const char *text)
{
    return kiv_events_notify(item, text, static_cast<uint32_t>(std::strlen(text) + 1), 0x1234);
}
