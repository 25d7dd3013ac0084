#include "sender.h"

#include <glib.h>

#include "closable_queue.h"
#include "kiv_debug/log_as.h"
#include "rendezvous.h"
#include "worker.h"
#include "zol/kiv_status.h"

namespace kiv
{
namespace
{

// Under the lock of the queue: whether a message would be handled, now or after a start. A start that has failed
// leaves "running" set, and no thread.
bool accepts(const kiv_thread *thread, bool is_sync) noexcept
{
    const bool has_thread = thread_of(thread) != nullptr;
    return is_running(thread) ? has_thread : !is_closed(thread->msgQueue) && (has_thread || !is_sync);
}

bool queue_message(kiv_thread *thread, kiv_message *message, bool is_sync)
{
    const queue_lock lock(thread->msgQueue);
    if (!accepts(thread, is_sync)) {
        return false;
    }
    hand_over(message);
    g_async_queue_push_unlocked(thread->msgQueue, message);
    return true;
}

int32_t send_async(kiv_thread *thread, kiv_message *msg)
{
    KIV_LOG_AS(send_routine, INF2, "sending message (%s)(%d)\n", thread->name, msg->msgId);
    return queue_message(thread, msg, false) ? KIV_OK : KIV_ERR_STATE;
}

// Once the message is queued, only the rendezvous is looked at: the worker may have freed the message.
int32_t queue_and_wait(kiv_thread *thread, kiv_message *msg, rendezvous *point)
{
    msg->pBarrier = point; // and so at the barrier, its first member
    if (!queue_message(thread, msg, true)) {
        delete_rendezvous(point);
        return KIV_ERR_STATE;
    }
    return wait_for_worker(point, {send_routine, __LINE__});
}

int32_t send_sync(kiv_thread *thread, kiv_message *msg)
{
    msg->pBarrier = nullptr;
    if (is_own_worker(thread)) {
        return KIV_ERR_STATE;
    }
    rendezvous *const point = new_rendezvous();
    if (!KIV_HOLDS_AT((call_site{send_routine, __LINE__}), point != nullptr)) {
        KIV_LOG_AS(send_routine, ERRR, "thread (%s): no memory to wait for message (%d)\n", thread->name,
                   msg->msgId);
        return KIV_ERR_NO_MEMORY;
    }
    KIV_LOG_AS(send_routine, INF2, "sending message (%s)(%d)\n", thread->name, msg->msgId);
    const int32_t status = queue_and_wait(thread, msg, point);
    if (status == KIV_ERR_STATE) { // the message is the caller's again
        msg->pBarrier = nullptr;
    }
    return status;
}

} // namespace

int32_t send(kiv_thread *thread, kiv_message *msg)
{
    return msg->isSync != 0 ? send_sync(thread, msg) : send_async(thread, msg);
}

} // namespace kiv
