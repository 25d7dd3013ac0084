// The worker-thread test: one worker, asynchronous and synchronous messages, and every message printed.

#include <cstdio>
#include <cstring>

#include "common/text.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"
#include "zol/kiv_test.h"
#include "zol/kiv_thread.h"

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

// The worker frees what it took.
bool send_or_free(kiv_thread &thread, kiv_message *message)
{
    const bool sent = kiv_thread_sendMsg(&thread, message) == KIV_OK;
    KIV_ASSERT(sent);
    if (!sent) {
        kiv_message_free(message);
    }
    return sent;
}

bool send_async(kiv_thread &thread)
{
    kiv_message *const message = kiv_message_new(test_message, 0);
    if (message == nullptr) {
        return false;
    }
    message->pData = const_cast<char *>("Shalom");
    kiv_thread_sleep(pause_us);
    return send_or_free(thread, message);
}

bool send_sync(kiv_thread &thread)
{
    kiv_message *const message = kiv_message_new(test_message, 0);
    if (message == nullptr) {
        return false;
    }
    message->pData = const_cast<char *>("sync");
    message->isSync = 1;
    message->syncTimeout = sync_timeout_us;
    return send_or_free(thread, message);
}

bool send_all(kiv_thread &thread, bool (*send)(kiv_thread &))
{
    for (int i = 0; i < messages; ++i) {
        if (!send(thread)) {
            return false;
        }
    }
    return true;
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
    const bool created = kiv_thread_create(&thread, &params) == KIV_OK;
    KIV_ASSERT(created);
    const bool started = kiv_thread_start(&thread) == KIV_OK;
    KIV_ASSERT(started);
    const bool passed = started && send_all(thread, send_async) && send_all(thread, send_sync);
    kiv_thread_stop(&thread);
    kiv_thread_delete(&thread);
    KIV_LOG_PRNT("test kiv_thread - end\n");
    return passed ? 1 : 0;
}
