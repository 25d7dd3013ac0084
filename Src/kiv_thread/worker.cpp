#include "worker.h"

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <utility>

#include "closable_queue.h"
#include "common/queue_reader.h"
#include "common/text.h"
#include "common/tsan.h"
#include "zol/kiv_status.h"

namespace kiv
{
namespace
{

constexpr char run_routine[] = "_kiv_thread_run";
constexpr std::size_t longest_thread_name = 15; // of the kernel

// Its own reference to the queue outlives the deletion of the object.
struct worker {
    kiv_thread *thread;
    owned_queue queue;
    queue_reader reader;
    owned_message timeout_message;
    kiv_message *handled; // the message that the handler has now
    rendezvous *sender;   // waits for it, if not null
};

rendezvous *sender_of(const kiv_message *message) noexcept
{
    return message->isSync != 0 ? static_cast<rendezvous *>(message->pBarrier) : nullptr;
}

// Senders are refused from here on. The messages that are left are dropped without the lock: dropping one may wait
// for its sender.
void close(worker &self)
{
    {
        const queue_lock lock(self.queue.get());
        close_queue(self.queue.get());
        set_running(self.thread, 0);
    }
    while (gpointer const message = self.reader.pop_taken()) {
        drop(static_cast<kiv_message *>(message));
    }
    while (kiv_message *const message = take_left_over(self.queue.get())) {
        drop(message);
    }
    hand_over(self.thread); // to the thread that joins
}

void abandon_handled(const worker &self)
{
    if (self.handled == nullptr || self.handled == self.timeout_message.get()) {
        return;
    }
    if (self.sender != nullptr) {
        release_sender(self.sender, KIV_ERR_STATE, {run_routine, __LINE__});
    } else {
        kiv_message_free(self.handled);
    }
}

// Runs when the thread ends, also when the handler calls pthread_exit() or the thread is cancelled in it. A handler
// may also fork: the child's copy of the worker must not touch the parent's queue or senders.
void end_worker(gpointer data)
{
    const std::unique_ptr<worker> self(static_cast<worker *>(data));
    if (!is_of_this_process(self->queue.get())) {
        static_cast<void>(self->queue.release());
        return;
    }
    abandon_handled(*self);
    close(*self);
}

GPrivate g_worker = G_PRIVATE_INIT(end_worker);

// The handler may have changed the record.
kiv_message *renewed_timeout_message(const worker &self) noexcept
{
    kiv_message *const message = self.timeout_message.get();
    message->msgId = KIV_MSG_ID_TIMEOUT;
    message->pData = const_cast<char *>("timeout");
    return message;
}

gpointer wait_for_message(const worker &self)
{
    const int32_t timeout = __atomic_load_n(&self.thread->timeout, __ATOMIC_RELAXED);
    return timeout == -1
               ? g_async_queue_pop(self.queue.get())
               : g_async_queue_timeout_pop(self.queue.get(), static_cast<guint64>(std::max(timeout, 0)));
}

kiv_message *next_message(worker &self)
{
    gpointer message = self.reader.pop_soon(self.queue.get());
    if (message == nullptr) {
        message = wait_for_message(self);
    }
    if (message == nullptr) {
        return renewed_timeout_message(self);
    }
    take_over(message);
    return static_cast<kiv_message *>(message);
}

void finish(worker &self)
{
    kiv_message *const message = std::exchange(self.handled, nullptr);
    if (message == self.timeout_message.get()) {
        return;
    }
    if (self.sender != nullptr) {
        release_sender(self.sender, KIV_OK, {run_routine, __LINE__});
    }
    kiv_message_free(message);
}

int32_t call_handler(const worker &self, kiv_message *message)
{
    kiv_thread *const thread = self.thread;
    KIV_LOG_AS(run_routine, INF2, "process message (%s)(%d) - start\n", thread->name, message->msgId);
    const int32_t result = thread->handler(thread, message);
    if (!KIV_HOLDS_AT((call_site{run_routine, __LINE__}), result == 0)) {
        KIV_LOG_AS(run_routine, ERRR, "thread (%s) ends: its handler answered message (%d) with %d\n",
                   thread->name, message->msgId, result);
    }
    KIV_LOG_AS(run_routine, INF2, "process message (%s)(%d) - end (%d)\n", thread->name, message->msgId,
               result);
    return result;
}

// @return False when the worker is to end.
bool process(worker &self, kiv_message *message)
{
    self.handled = message;
    self.sender = sender_of(message); // before the handler can change it
    const int32_t result = call_handler(self, message);
    if (!is_of_this_process(self.queue.get())) {
        return false;
    }
    const int32_t msgId = message->msgId;
    finish(self);
    if (msgId == KIV_MSG_ID_EXIT) {
        KIV_LOG_AS(run_routine, INF2, "thread (%s) is exiting\n", self.thread->name);
    }
    return msgId != KIV_MSG_ID_EXIT && result == 0 && is_running(self.thread);
}

gpointer _kiv_thread_run(gpointer data)
{
    auto *const self = static_cast<worker *>(data);
    g_private_set(&g_worker, self);
    self->timeout_message.reset(kiv_message_new(KIV_MSG_ID_TIMEOUT, 0));
    if (KIV_HOLDS(self->thread->handler != nullptr && self->timeout_message != nullptr)) {
        while (process(*self, next_message(*self))) {
        }
    }
    return nullptr;
}

} // namespace

GThread *start_worker(kiv_thread *thread)
{
    owned_queue queue(g_async_queue_ref(thread->msgQueue));
    std::unique_ptr<worker> self(new (std::nothrow)
                                     worker{thread, std::move(queue), {}, nullptr, nullptr, nullptr});
    if (self == nullptr) {
        return nullptr;
    }
    std::array<char, longest_thread_name + 1> name = {};
    copy_bounded(name.data(), name.size(), thread->name);
    GThread *const started = g_thread_try_new(name.data(), _kiv_thread_run, self.get(), nullptr);
    if (started != nullptr) {
        static_cast<void>(self.release()); // it is the thread's
    }
    return started;
}

void drop(kiv_message *message)
{
    take_over(message);
    if (rendezvous *const sender = sender_of(message)) {
        release_sender(sender, KIV_ERR_STATE, {run_routine, __LINE__});
    } else {
        kiv_message_free(message);
    }
}

} // namespace kiv
