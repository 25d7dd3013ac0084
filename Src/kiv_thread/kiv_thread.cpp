// Worker threads: a GLib thread and a GLib queue each.
//
// Whether a worker takes messages is decided under the lock of its queue, where senders push and the worker
// closes: a worker that ends puts a mark at the head of its queue, behind which nothing is queued any more.
// So a message is either handled, freed, or its sender told; and nobody waits for a worker that is not there.

#include "zol/kiv_thread.h"

#include <glib.h>
#include <pthread.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "common/text.h"
#include "common/tsan.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

static_assert(offsetof(kiv_thread, userData) == offsetof(kiv_thread_params, userData) &&
                  offsetof(kiv_thread, timeout) == offsetof(kiv_thread_params, timeout) &&
                  offsetof(kiv_thread, handler) == offsetof(kiv_thread_params, handler) &&
                  offsetof(kiv_thread, priority) == offsetof(kiv_thread_params, priority),
              "a worker begins with its parameters");
static_assert(sizeof(void *) != 4 || sizeof(kiv_message) == 36, "the record is nine words on the target");

namespace
{

constexpr uint32_t highest_priority = 3;
constexpr uint32_t default_priority = 1;
constexpr int32_t default_timeout_us = 3'000'000;
constexpr uint32_t header_size = sizeof(kiv_message);

// Stands at the head of the queue of a worker that has ended.
kiv_message g_closed_mark;

// Where a synchronous sender and the worker meet. A message points at the barrier, and so at this record. Who
// leaves last takes it down: the other may still be on its way out of the barrier.
struct meeting {
    pthread_barrier_t barrier;
    int32_t status;  // what the sender is told; set by the worker before they meet
    int32_t present; // atomic: who has not left yet
};
static_assert(offsetof(meeting, barrier) == 0);

struct message_deleter {
    void operator()(kiv_message *message) const noexcept { kiv_message_free(message); }
};

using unique_message = std::unique_ptr<kiv_message, message_deleter>;

// The lock of a queue.
class queue_lock
{
public:
    explicit queue_lock(GAsyncQueue *queue) noexcept : queue_(queue) { g_async_queue_lock(queue_); }
    ~queue_lock() { g_async_queue_unlock(queue_); }
    queue_lock(const queue_lock &) = delete;
    queue_lock &operator=(const queue_lock &) = delete;

private:
    GAsyncQueue *queue_;
};

void set_running(kiv_thread *thread, int32_t running) noexcept
{
    __atomic_store_n(&thread->running, running, __ATOMIC_RELEASE);
}

bool is_running(kiv_thread *thread) noexcept
{
    return __atomic_load_n(&thread->running, __ATOMIC_ACQUIRE) != 0;
}

GThread *worker_of(kiv_thread *thread) noexcept
{
    return __atomic_load_n(&thread->gthread, __ATOMIC_ACQUIRE);
}

// Under the lock of the queue.
bool is_closed(GAsyncQueue *queue) noexcept
{
    gpointer const head = g_async_queue_try_pop_unlocked(queue);
    if (head != nullptr) {
        g_async_queue_push_front_unlocked(queue, head);
    }
    return head == &g_closed_mark;
}

// Under the lock of the queue: whether a message would be handled, now or after a start.
bool takes(kiv_thread *thread, bool is_sync) noexcept
{
    if (is_running(thread)) {
        return !is_sync || worker_of(thread) != nullptr;
    }
    return !is_sync && !is_closed(thread->msgQueue);
}

bool queue_message(kiv_thread *thread, kiv_message *message, bool is_sync)
{
    const queue_lock lock(thread->msgQueue);
    if (!takes(thread, is_sync)) {
        return false;
    }
    kiv::hand_over(message);
    g_async_queue_push_unlocked(thread->msgQueue, message);
    return true;
}

// @return False when the barrier could not be destroyed.
bool leave(meeting *point)
{
    if (__atomic_sub_fetch(&point->present, 1, __ATOMIC_ACQ_REL) > 0) {
        return true;
    }
    const bool destroyed = pthread_barrier_destroy(&point->barrier) == 0;
    KIV_ASSERT(destroyed);
    std::free(point);
    return destroyed;
}

void wait_for_the_other(meeting *point)
{
    const int result = pthread_barrier_wait(&point->barrier);
    KIV_ASSERT(result == 0 || result == PTHREAD_BARRIER_SERIAL_THREAD);
}

// The worker's side of a synchronous message.
void meet_sender(const kiv_message *message, int32_t status)
{
    auto *const point = static_cast<meeting *>(message->pBarrier);
    point->status = status;
    wait_for_the_other(point);
    leave(point);
}

// The sender's side. The message is no longer looked at: the worker may have freed it.
int32_t meet_worker(meeting *point)
{
    wait_for_the_other(point);
    const int32_t status = point->status;
    return leave(point) ? status : KIV_ERR_NO_MEMORY;
}

meeting *arrange_meeting()
{
    auto *point = static_cast<meeting *>(std::malloc(sizeof(meeting)));
    if (point != nullptr && pthread_barrier_init(&point->barrier, nullptr, 2) != 0) {
        std::free(point);
        point = nullptr;
    }
    KIV_ASSERT(point != nullptr);
    if (point != nullptr) {
        point->status = KIV_OK;
        point->present = 2;
    }
    return point;
}

// Nobody comes to it.
void call_off(meeting *point)
{
    point->present = 1;
    leave(point);
}

int32_t refuse(const kiv_thread *thread, int32_t msgId)
{
    KIV_LOG_ERRR("thread (%s) has no worker to handle message (%d)\n", thread->name, msgId);
    return KIV_ERR_STATE;
}

int32_t send_async(kiv_thread *thread, kiv_message *msg)
{
    const int32_t msgId = msg->msgId;
    KIV_LOG_INF2("sending message (%s)(%d)\n", thread->name, msgId);
    return queue_message(thread, msg, false) ? KIV_OK : refuse(thread, msgId);
}

int32_t send_sync(kiv_thread *thread, kiv_message *msg)
{
    const int32_t msgId = msg->msgId;
    if (worker_of(thread) == g_thread_self()) { // it would wait for itself
        return refuse(thread, msgId);
    }
    meeting *const point = arrange_meeting();
    msg->pBarrier = point; // and so at the barrier, its first member
    if (point == nullptr) {
        return KIV_ERR_NO_MEMORY;
    }
    KIV_LOG_INF2("sending message (%s)(%d)\n", thread->name, msgId);
    if (!queue_message(thread, msg, true)) {
        call_off(point);
        msg->pBarrier = nullptr;
        return refuse(thread, msgId);
    }
    const int32_t status = meet_worker(point);
    if (status == KIV_ERR_STATE) { // the worker has ended, and the message is the caller's again
        msg->pBarrier = nullptr;
        return refuse(thread, msgId);
    }
    return status;
}

// A message that nobody handles: its sender, if it waits, gets it back.
void drop(kiv_message *message)
{
    kiv::take_over(message);
    if (message->isSync != 0 && message->pBarrier != nullptr) {
        meet_sender(message, KIV_ERR_STATE);
    } else {
        kiv_message_free(message);
    }
}

kiv_message *pop_behind_mark(GAsyncQueue *queue)
{
    const queue_lock lock(queue);
    g_async_queue_try_pop_unlocked(queue);
    auto *const message = static_cast<kiv_message *>(g_async_queue_try_pop_unlocked(queue));
    g_async_queue_push_front_unlocked(queue, &g_closed_mark);
    return message;
}

// From here on nothing is queued any more; what is queued is dropped, without the lock, since senders are
// met.
void close_queue(kiv_thread *thread, GAsyncQueue *queue)
{
    {
        const queue_lock lock(queue);
        g_async_queue_push_front_unlocked(queue, &g_closed_mark);
        set_running(thread, 0);
    }
    while (kiv_message *const message = pop_behind_mark(queue)) {
        drop(message);
    }
}

kiv_message *next_message(const kiv_thread *thread, GAsyncQueue *queue, kiv_message *timeout_message)
{
    const int32_t timeout = __atomic_load_n(&thread->timeout, __ATOMIC_RELAXED);
    gpointer const message = timeout < 0 ? g_async_queue_pop(queue)
                                         : g_async_queue_timeout_pop(queue, static_cast<guint64>(timeout));
    if (message == nullptr) {
        return timeout_message;
    }
    kiv::take_over(message);
    return static_cast<kiv_message *>(message);
}

void finish(kiv_message *message)
{
    if (message->isSync != 0) {
        meet_sender(message, KIV_OK);
    }
    kiv_message_free(message);
}

// @return Whether the worker goes on.
bool process(kiv_thread *thread, kiv_message *message, const kiv_message *timeout_message)
{
    const int32_t msgId = message->msgId;
    KIV_LOG_INF2("process message (%s)(%d) - start\n", thread->name, msgId);
    const int32_t result = thread->handler(thread, message);
    KIV_ASSERT(result == 0);
    KIV_LOG_INF2("process message (%s)(%d) - end (%d)\n", thread->name, msgId, result);
    if (message != timeout_message) {
        finish(message);
    }
    if (msgId == KIV_MSG_ID_EXIT) {
        KIV_LOG_INF2("thread (%s) is exiting\n", thread->name);
    }
    return msgId != KIV_MSG_ID_EXIT && result == 0 && is_running(thread);
}

struct queue_deleter {
    void operator()(GAsyncQueue *queue) const noexcept { g_async_queue_unref(queue); }
};

using unique_queue = std::unique_ptr<GAsyncQueue, queue_deleter>;

// What a worker starts with. The queue is a reference of its own: deleting the object takes away the
// object's.
struct worker_start {
    kiv_thread *thread;
    unique_queue queue;
};

gpointer _kiv_thread_run(gpointer data)
{
    const std::unique_ptr<worker_start> start(static_cast<worker_start *>(data));
    kiv_thread *const thread = start->thread;
    const unique_queue &queue = start->queue;
    const unique_message timeout_message(kiv_message_new(KIV_MSG_ID_TIMEOUT, 0));
    KIV_ASSERT(thread->handler != nullptr && timeout_message != nullptr);
    if (thread->handler != nullptr && timeout_message != nullptr) {
        timeout_message->pData = const_cast<char *>("timeout");
        while (process(thread, next_message(thread, queue.get(), timeout_message.get()),
                       timeout_message.get())) {
        }
    }
    close_queue(thread, queue.get());
    return nullptr;
}

GThread *start_worker(kiv_thread *thread)
{
    unique_queue queue(g_async_queue_ref(thread->msgQueue));
    std::unique_ptr<worker_start> start(new (std::nothrow) worker_start{thread, std::move(queue)});
    if (start == nullptr) {
        return nullptr;
    }
    GThread *const worker = g_thread_try_new(nullptr, _kiv_thread_run, start.get(), nullptr);
    if (worker != nullptr) {
        static_cast<void>(start.release()); // the worker's now
    }
    return worker;
}

// Takes the thread out of the object, so that it is joined once.
GThread *take_worker(kiv_thread *thread) noexcept
{
    return __atomic_exchange_n(&thread->gthread, nullptr, __ATOMIC_ACQ_REL);
}

bool are_good(const kiv_thread_params &params) noexcept
{
    const std::size_t length = strnlen(params.name, sizeof params.name);
    return length > 1 && length < sizeof params.name && params.priority <= highest_priority &&
           params.handler != nullptr;
}

void drop_queued(GAsyncQueue *queue)
{
    while (auto *const message = static_cast<kiv_message *>(g_async_queue_try_pop(queue))) {
        if (message != &g_closed_mark) {
            drop(message);
        }
    }
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
    KIV_LOG_PRNT("create thread (%.63s)\n", params != nullptr ? params->name : "NULL");
    const bool good = thread != nullptr && params != nullptr && are_good(*params);
    KIV_ASSERT(good);
    if (!good) {
        return KIV_ERR_INVALID_PARAM;
    }
    kiv::copy_bounded(thread->name, sizeof thread->name, params->name);
    thread->priority = params->priority;
    thread->handler = params->handler;
    thread->timeout = params->timeout;
    thread->userData = params->userData;
    thread->gthread = nullptr; // so that joining what was never started is refused
    thread->msgQueue = g_async_queue_new();
    set_running(thread, 0);
    return KIV_OK;
}

int32_t kiv_thread_create_default(kiv_thread *thread, const char *name, kiv_thread_handler handler,
                                  void *userData)
{
    const bool good = thread != nullptr && name != nullptr && name[0] != '\0';
    KIV_ASSERT(good);
    if (!good) {
        return KIV_ERR_INVALID_PARAM;
    }
    kiv_thread_params params = {};
    kiv::copy_bounded(params.name, sizeof params.name, name);
    params.priority = default_priority;
    params.handler = handler;
    params.timeout = default_timeout_us;
    params.userData = userData;
    const int32_t created = kiv_thread_create(thread, &params);
    KIV_ASSERT(created == KIV_OK);
    if (created != KIV_OK) {
        return created; // nothing was set up, so there is nothing to delete
    }
    const int32_t started = kiv_thread_start(thread);
    KIV_ASSERT(started == KIV_OK);
    if (started != KIV_OK) {
        kiv_thread_delete(thread);
    }
    return started;
}

int32_t kiv_thread_start(kiv_thread *thread)
{
    KIV_ASSERT(thread != nullptr && thread->msgQueue != nullptr);
    if (thread == nullptr || thread->msgQueue == nullptr) {
        return KIV_ERR_INVALID_PARAM;
    }
    const bool already_running = is_running(thread);
    KIV_ASSERT(!already_running);
    if (already_running) {
        return KIV_ERR_SYSTEM;
    }
    const queue_lock lock(thread->msgQueue); // senders see the flag and the thread together
    const bool has_run = is_closed(thread->msgQueue);
    KIV_ASSERT(!has_run);
    if (has_run) {
        return KIV_ERR_STATE;
    }
    set_running(thread, 1); // before the worker is there, so that it sees it
    GThread *const worker = start_worker(thread);
    __atomic_store_n(&thread->gthread, worker, __ATOMIC_RELEASE);
    if (worker == nullptr) {
        KIV_LOG_ERRR("thread (%s) can't be started: no thread to be had\n", thread->name);
    }
    return worker != nullptr ? KIV_OK : KIV_ERR_SYSTEM;
}

int32_t kiv_thread_sendMsg(kiv_thread *thread, kiv_message *msg)
{
    KIV_ASSERT(thread != nullptr);
    if (thread == nullptr) {
        return KIV_ERR_INVALID_PARAM;
    }
    KIV_LOG_INF1("sendMsg thread (%s)\n", thread->name);
    const bool good = msg != nullptr && msg->sizeBytes >= header_size && thread->msgQueue != nullptr;
    KIV_ASSERT(good);
    if (!good) {
        return KIV_ERR_INVALID_PARAM;
    }
    return msg->isSync != 0 ? send_sync(thread, msg) : send_async(thread, msg);
}

int32_t kiv_thread_stop(kiv_thread *thread)
{
    if (thread == nullptr) {
        return KIV_ERR_INVALID_PARAM;
    }
    KIV_LOG_INF1("stop thread (%s)\n", thread->name);
    KIV_ASSERT(thread->msgQueue != nullptr);
    if (thread->msgQueue == nullptr) {
        return KIV_ERR_INVALID_PARAM;
    }
    if (is_running(thread)) {
        unique_message message(kiv_message_new(KIV_MSG_ID_EXIT, 0));
        KIV_ASSERT(message != nullptr);
        if (message == nullptr) {
            return KIV_ERR_SYSTEM;
        }
        message->isSync = 1;
        const int32_t sent = kiv_thread_sendMsg(thread, message.get());
        KIV_ASSERT(sent == KIV_OK || (sent == KIV_ERR_STATE && !is_running(thread)));
        if (sent == KIV_OK) {
            static_cast<void>(message.release());
        } else if (sent != KIV_ERR_STATE || is_running(thread)) {
            return sent;
        }
    }
    const int32_t joined = kiv_thread_join(thread); // also what has ended by itself, just now or long ago
    KIV_ASSERT(joined == KIV_OK);
    return joined;
}

int32_t kiv_thread_join(kiv_thread *thread)
{
    KIV_ASSERT(thread != nullptr);
    if (thread == nullptr) {
        return KIV_ERR_INVALID_PARAM;
    }
    KIV_LOG_INF1("join thread (%s)\n", thread->name);
    KIV_LOG_INF2("Joining (%s)\n", thread->name);
    GThread *const worker = worker_of(thread) != g_thread_self() ? take_worker(thread) : nullptr;
    if (worker == nullptr) {
        KIV_LOG_ERRR("thread (%s) has no worker to join\n", thread->name);
        return KIV_ERR_STATE;
    }
    gpointer const result = g_thread_join(worker);
    KIV_LOG_INF2("Joined  (%s)(%p)\n", thread->name, result);
    return KIV_OK;
}

int32_t kiv_thread_delete(kiv_thread *thread)
{
    if (thread == nullptr) {
        return KIV_OK;
    }
    KIV_LOG_INF1("delete thread (%s)\n", thread->name);
    const bool running = is_running(thread);
    if (thread->msgQueue != nullptr) {
        KIV_LOG_INF1("unref message queue\n");
        if (worker_of(thread) ==
            nullptr) { // else what is queued is the worker's, which has a reference of its own
            drop_queued(thread->msgQueue);
        }
        g_async_queue_unref(thread->msgQueue);
        thread->msgQueue = nullptr;
    }
    KIV_ASSERT(!running);
    return KIV_OK;
}

void kiv_thread_sleep(uint32_t us)
{
    KIV_LOG_INF2("\n");
    g_usleep(us);
}

int32_t kiv_thread_isRunning(kiv_thread *thread)
{
    return thread != nullptr && is_running(thread) ? 1 : 0;
}

kiv_message *kiv_message_new(int32_t msgId, uint32_t sizeBytes)
{
    if (sizeBytes != 0 && sizeBytes < header_size) {
        KIV_LOG_ERRR("sizeBytes has to be at least sizeof(struct kiv_message) = %d\n",
                     static_cast<int>(header_size));
    }
    const uint32_t size = sizeBytes < header_size ? header_size : sizeBytes;
    auto *const message = static_cast<kiv_message *>(std::malloc(size));
    KIV_ASSERT(message != nullptr);
    if (message != nullptr) {
        *message = {};
        message->msgId = msgId;
        message->sizeBytes = size;
    }
    return message;
}

void kiv_message_free(kiv_message *msg)
{
    if (msg != nullptr) {
        *msg = {};
        std::free(msg);
    }
}
