// Worker threads: a GLib thread and a GLib queue each.
//
// A worker closes its queue when it ends. Senders check that under the queue's lock. So every message is handled,
// freed or given back to its sender, and nobody waits for a worker that has ended.

#include "zol/kiv_thread.h"

#include <glib.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "closable_queue.h"
#include "common/cancellation.h"
#include "common/owner.h"
#include "common/text.h"
#include "common/tsan.h"
#include "kiv_debug/log_as.h"
#include "sender.h"
#include "worker.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using kiv::call_site;
using kiv::is_own_worker;
using kiv::is_running;
using kiv::queue_lock;
using kiv::thread_of;

static_assert(offsetof(kiv_thread, userData) == offsetof(kiv_thread_params, userData) &&
                  offsetof(kiv_thread, timeout) == offsetof(kiv_thread_params, timeout) &&
                  offsetof(kiv_thread, handler) == offsetof(kiv_thread_params, handler) &&
                  offsetof(kiv_thread, priority) == offsetof(kiv_thread_params, priority),
              "a worker begins with its parameters");

namespace
{

constexpr uint32_t highest_priority = 3;
constexpr uint32_t default_priority = 1;
constexpr int32_t default_timeout_us = 3'000'000;
constexpr uint32_t header_size = sizeof(kiv_message);
constexpr char join_routine[] = "kiv_thread_join";
constexpr char from_before_a_fork[] = "made before the fork, and its worker is not in this process";

using owned_thread = kiv::owner<GThread, g_thread_unref>;

// Logs the reason, behind the assertion.
int32_t report(call_site site, const kiv_thread *thread, int32_t status, const char *reason)
{
    KIV_LOG_AT(site, ERRR, "thread (%s): %s\n", thread != nullptr ? thread->name : "NULL", reason);
    return status;
}

// @return KIV_OK, or the status of an object that has no queue, or has it from before a fork.
int32_t check_queue(call_site site, const kiv_thread *thread)
{
    if (!KIV_HOLDS_AT(site, thread != nullptr && thread->msgQueue != nullptr)) {
        return report(site, thread, KIV_ERR_INVALID_PARAM, "not created, or deleted");
    }
    if (!kiv::is_of_this_process(thread->msgQueue)) {
        return report(site, thread, KIV_ERR_STATE, from_before_a_fork);
    }
    return KIV_OK;
}

// Takes a reference to the thread, so that several callers may wait for its end. @return Null when there is no
// thread, or when it is the calling one.
owned_thread thread_to_join(kiv_thread *thread)
{
    if (thread->msgQueue == nullptr) { // deleted while it ran: there is nobody else
        return owned_thread(is_own_worker(thread) ? nullptr : std::exchange(thread->gthread, nullptr));
    }
    const queue_lock lock(thread->msgQueue);
    GThread *const worker = thread_of(thread);
    return owned_thread(worker == nullptr || worker == g_thread_self() ? nullptr : g_thread_ref(worker));
}

// The first one to return drops the object's reference.
void forget_joined(kiv_thread *thread, GThread *joined)
{
    if (thread->msgQueue == nullptr) {
        return;
    }
    const queue_lock lock(thread->msgQueue);
    if (thread_of(thread) == joined) {
        __atomic_store_n(&thread->gthread, nullptr, __ATOMIC_RELEASE);
        g_thread_unref(joined);
    }
}

// GLib waits under a lock of the thread. A caller that is cancelled there would leave it locked.
int32_t join(kiv_thread *thread, const owned_thread &worker)
{
    KIV_LOG_AS(join_routine, INF1, "join thread (%s)\n", thread->name);
    KIV_LOG_AS(join_routine, INF2, "Joining (%s)\n", thread->name);
    if (worker == nullptr) {
        return report({join_routine, __LINE__}, thread, KIV_ERR_STATE,
                      is_own_worker(thread) ? "a worker cannot join itself" : "has no worker to join");
    }
    const kiv::cancellation_off uncancelled;
    gpointer const result = g_thread_join(g_thread_ref(worker.get()));
    kiv::take_over(thread);
    forget_joined(thread, worker.get());
    KIV_LOG_AS(join_routine, INF2, "Joined  (%s)(%p)\n", thread->name, result);
    return KIV_OK;
}

// Joins a worker that has ended by itself. @return False: that is the calling thread.
bool reap_ended(kiv_thread *thread)
{
    if (is_own_worker(thread)) {
        return false;
    }
    const owned_thread ended = thread_to_join(thread);
    return ended == nullptr || join(thread, ended) == KIV_OK;
}

// Under the lock, so that senders see the flag and the thread together.
bool launch(kiv_thread *thread)
{
    const queue_lock lock(thread->msgQueue);
    kiv::reopen_queue(thread->msgQueue);
    kiv::set_running(thread, 1); // before the worker is there, so that it sees it
    GThread *const worker = kiv::start_worker(thread);
    __atomic_store_n(&thread->gthread, worker, __ATOMIC_RELEASE);
    return worker != nullptr;
}

// @return Null when nothing is wrong.
const char *objection_to(const kiv_thread *thread, const kiv_thread_params *params) noexcept
{
    if (thread == nullptr || params == nullptr) {
        return thread == nullptr ? "no thread object" : "no parameters";
    }
    const std::size_t length = strnlen(params->name, sizeof params->name);
    if (length < 2 || length == sizeof params->name) {
        return "its name has to have 2 to 63 characters";
    }
    if (params->priority > highest_priority) {
        return "its priority is above 3";
    }
    return params->handler == nullptr ? "it has no handler" : nullptr;
}

void drop_queued(GAsyncQueue *queue)
{
    while (kiv_message *const message = kiv::take_left_over(queue)) {
        kiv::drop(message);
    }
}

// A worker that still runs has a reference of its own to the queue, and frees the messages itself.
void delete_queue(kiv_thread *thread)
{
    if (kiv::is_of_this_process(thread->msgQueue)) {
        if (thread_of(thread) == nullptr) {
            drop_queued(thread->msgQueue);
        }
        kiv::release_queue(thread->msgQueue);
    } else { // its worker and its locks are the parent's
        thread->gthread = nullptr;
        kiv::set_running(thread, 0);
    }
    thread->msgQueue = nullptr;
}

} // namespace

int32_t kiv_thread_init(void)
{
    KIV_LOG_PRNT("initialize\n"); // GLib readies its threads by itself
    return KIV_OK;
}

int32_t kiv_thread_deinit(void)
{
    KIV_LOG_PRNT("de-initialize\n");
    return KIV_OK;
}

int32_t kiv_thread_create(kiv_thread *thread, const kiv_thread_params *params)
{
    const char *const name = params != nullptr ? params->name : "NULL";
    KIV_LOG_PRNT("create thread (%.63s)\n", name);
    const char *const objection = objection_to(thread, params);
    if (!KIV_HOLDS(objection == nullptr)) {
        KIV_LOG_ERRR("can't create thread (%.63s): %s\n", name, objection);
        return KIV_ERR_INVALID_PARAM;
    }
    kiv::copy_bounded(thread->name, sizeof thread->name, params->name);
    thread->priority = params->priority;
    thread->handler = params->handler;
    thread->timeout = params->timeout;
    thread->userData = params->userData;
    thread->gthread = nullptr; // so that joining what was never started is refused
    thread->msgQueue = kiv::new_queue(call_site::here());
    kiv::set_running(thread, 0);
    return KIV_OK;
}

int32_t kiv_thread_create_default(kiv_thread *thread, const char *name, kiv_thread_handler handler,
                                  void *userData)
{
    if (!KIV_HOLDS(thread != nullptr && name != nullptr && name[0] != '\0')) {
        KIV_LOG_ERRR("can't create thread (%s): it needs an object and a name\n", kiv::shown(name));
        return KIV_ERR_INVALID_PARAM;
    }
    kiv_thread_params params = {};
    kiv::copy_bounded(params.name, sizeof params.name, name);
    params.priority = default_priority;
    params.handler = handler;
    params.timeout = default_timeout_us;
    params.userData = userData;
    const int32_t created = kiv_thread_create(thread, &params);
    if (!KIV_HOLDS(created == KIV_OK)) {
        return created; // nothing was set up, so there is nothing to delete
    }
    const int32_t started = kiv_thread_start(thread);
    if (!KIV_HOLDS(started == KIV_OK)) {
        kiv_thread_delete(thread);
    }
    return started;
}

int32_t kiv_thread_start(kiv_thread *thread)
{
    const int32_t usable = check_queue(call_site::here(), thread);
    if (usable != KIV_OK) {
        return usable;
    }
    if (!KIV_HOLDS(!is_running(thread))) {
        return report(call_site::here(), thread, KIV_ERR_SYSTEM, "runs already");
    }
    if (!reap_ended(thread)) {
        return report(call_site::here(), thread, KIV_ERR_STATE, "a worker cannot start itself again");
    }
    if (!launch(thread)) {
        return report(call_site::here(), thread, KIV_ERR_SYSTEM,
                      "can't be started: the system has no thread");
    }
    return KIV_OK;
}

int32_t kiv_thread_sendMsg(kiv_thread *thread, kiv_message *msg)
{
    if (thread != nullptr) {
        KIV_LOG_INF1("sendMsg thread (%s)\n", thread->name);
    }
    const int32_t usable = check_queue(call_site::here(), thread);
    if (usable != KIV_OK) {
        return usable;
    }
    if (!KIV_HOLDS(msg != nullptr && msg->sizeBytes >= header_size)) {
        return report(call_site::here(), thread, KIV_ERR_INVALID_PARAM,
                      msg == nullptr ? "no message" : "the message is too small: see kiv_message_new()");
    }
    const int32_t msgId = msg->msgId; // the worker may free the message
    const int32_t status = kiv::send(thread, msg);
    if (status == KIV_ERR_STATE) {
        KIV_LOG_ERRR("thread (%s) has no worker to handle message (%d)\n", thread->name, msgId);
    }
    return status;
}

int32_t kiv_thread_stop(kiv_thread *thread)
{
    if (thread == nullptr) {
        return KIV_ERR_INVALID_PARAM;
    }
    KIV_LOG_INF1("stop thread (%s)\n", thread->name);
    const int32_t usable = check_queue(call_site::here(), thread);
    if (usable != KIV_OK) {
        return usable;
    }
    const owned_thread worker = thread_to_join(thread); // now: another thread may be joining it
    kiv::owned_message message(kiv_message_new(KIV_MSG_ID_EXIT, 0));
    if (!KIV_HOLDS(message != nullptr)) {
        return KIV_ERR_SYSTEM;
    }
    message->isSync = 1;
    KIV_LOG_AS(kiv::send_routine, INF1, "sendMsg thread (%s)\n", thread->name);
    const int32_t sent = kiv::send(thread, message.get());
    if (sent == KIV_OK) {
        static_cast<void>(message.release());
    } else if (!KIV_HOLDS(sent == KIV_ERR_STATE)) { // a worker that has ended by itself is joined
        return sent;
    }
    const int32_t joined = join(thread, worker);
    KIV_ASSERT(joined == KIV_OK);
    return joined;
}

int32_t kiv_thread_join(kiv_thread *thread)
{
    if (!KIV_GIVEN(thread != nullptr, "no thread to join")) {
        return KIV_ERR_INVALID_PARAM;
    }
    if (!kiv::is_of_this_process(thread->msgQueue)) {
        return report(call_site::here(), thread, KIV_ERR_STATE, from_before_a_fork);
    }
    return join(thread, thread_to_join(thread));
}

int32_t kiv_thread_delete(kiv_thread *thread)
{
    if (thread == nullptr) {
        return KIV_OK;
    }
    KIV_LOG_INF1("delete thread (%s)\n", thread->name);
    const bool running = kiv_thread_isRunning(thread) != 0;
    if (thread->msgQueue != nullptr) {
        KIV_LOG_INF1("unref message queue\n");
        delete_queue(thread);
    }
    if (!KIV_HOLDS(!running)) {
        report(call_site::here(), thread, KIV_OK, "deleted while it counts as running");
    }
    return KIV_OK;
}

void kiv_thread_sleep(uint32_t us)
{
    KIV_LOG_INF2("\n");
    g_usleep(us);
}

int32_t kiv_thread_isRunning(kiv_thread *thread)
{
    return thread != nullptr && is_running(thread) && kiv::is_of_this_process(thread->msgQueue) ? 1 : 0;
}
