// The worker-thread test: one worker, asynchronous and synchronous messages, and every message printed.

#include <cstdio>
#include <cstring>

#include "common/text.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"
#include "zol/kiv_test.h"
#include "zol/kiv_thread.h"

using kiv::call_site;

namespace
{

constexpr int messages = 5;
constexpr int32_t test_message = 100;
constexpr int32_t worker_timeout_us = 1'000'000;
constexpr uint32_t pause_us = 6'000'000; // long enough for some time-outs of the worker
constexpr int32_t sync_timeout_us = 3'000'000;

int32_t _test_kiv_thread_msg(kiv_thread *thread, kiv_message *msg)
{
    static int32_t lines = 0; // goes on through repeated runs
    std::printf(" %4d : thread(%s) msgId(%3d) pData(%-16s) - handle\n", lines++, thread->name, msg->msgId,
                kiv::shown(static_cast<const char *>(msg->pData)));
    return 0;
}

// The worker frees a message that it has accepted.
bool send_or_free(kiv_thread &thread, kiv_message *message, call_site site)
{
    const bool sent = KIV_HOLDS_AT(site, kiv_thread_sendMsg(&thread, message) == KIV_OK);
    if (!sent) {
        kiv_message_free(message);
    }
    return sent;
}

// The pause before each message lets the worker time out in between.
bool send_async(kiv_thread &thread, call_site site)
{
    kiv_message *const message = kiv_message_new(test_message, 0);
    if (message == nullptr) {
        return false;
    }
    message->pData = const_cast<char *>("Shalom");
    kiv_thread_sleep(pause_us);
    return send_or_free(thread, message, site);
}

bool send_sync(kiv_thread &thread, call_site site)
{
    kiv_message *const message = kiv_message_new(test_message, 0);
    if (message == nullptr) {
        return false;
    }
    message->pData = const_cast<char *>("sync");
    message->isSync = 1;
    message->syncTimeout = sync_timeout_us;
    return send_or_free(thread, message, site);
}

// The first failure ends the sending: the worker may be gone.
bool send_all(kiv_thread &thread, bool (*send)(kiv_thread &, call_site), call_site site)
{
    for (int i = 0; i < messages; ++i) {
        if (!send(thread, site)) {
            return false;
        }
    }
    return true;
}

// When there is no memory for the stop, the flag ends the worker. The worker must be gone before the test returns,
// because its object is on the stack.
bool stop_and_delete(kiv_thread &thread, call_site site)
{
    const bool stopped = KIV_HOLDS_AT(site, kiv_thread_stop(&thread) == KIV_OK);
    if (!stopped && thread.gthread != nullptr) {
        __atomic_store_n(&thread.running, 0, __ATOMIC_RELEASE);
        kiv_thread_join(&thread);
    }
    const bool deleted = KIV_HOLDS_AT(site, kiv_thread_delete(&thread) == KIV_OK);
    return stopped && deleted;
}

} // namespace

int _test_kiv_thread(int, char **, unsigned)
{
    kiv_thread thread = {};
    kiv_thread_params params = {};
    kiv::copy_bounded(params.name, sizeof params.name, "threadA");
    params.priority = 1;
    params.handler = _test_kiv_thread_msg;
    params.timeout = worker_timeout_us;

    KIV_LOG_PRNT("test kiv_thread - start\n");
    KIV_LOG_PRNT("sending %d messages\n", messages);
    KIV_ASSERT(kiv_thread_create(&thread, &params) == KIV_OK); // the start fails in its turn
    const bool handled = KIV_HOLDS(kiv_thread_start(&thread) == KIV_OK) &&
                         send_all(thread, send_async, call_site::here()) &&
                         send_all(thread, send_sync, call_site::here());
    const bool ended = stop_and_delete(thread, call_site::here());
    KIV_LOG_PRNT("test kiv_thread - end\n");
    return handled && ended ? 1 : 0;
}
