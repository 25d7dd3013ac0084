/**
 * @file kiv_thread.h
 * @brief Worker threads: each owns a message queue and runs a handler for every message taken from it.
 *
 * The object of a worker is the caller's memory, which stays where it is until the worker is joined. Its
 * life:
 *
 *     create -> start -> any number of sendMsg -> stop (which joins) -> delete
 *
 * A worker that was stopped, or that has ended by itself, may be started again. Any thread may send to a worker,
 * or join it, at any time between create and delete. Creating, starting, stopping and deleting one object is for
 * one thread at a time, and it is deleted when no other call on it is left. Time-outs are in microseconds.
 *
 * A message is the caller's until a send has returned KIV_OK. From then on it is the worker's, which frees it once
 * it is handled. A message whose send failed is still the caller's. Messages that a worker leaves in its queue
 * when it ends, or that are there when the object is deleted, are freed.
 *
 * A forked child has no worker of its parent's: every call on one answers at once, with KIV_ERR_STATE where it
 * returns a status. The child may delete the object and create it anew.
 *
 * The thread of a worker bears the first 15 characters of its name. Threads and queues are GLib's, which ends the
 * process when it has no memory for one of its own records: creating a worker, starting it and sending to it take
 * some. What this module itself allocates is checked, and answered with the status given below.
 *
 * @code
 *     static int32_t handle(kiv_thread *thread, kiv_message *msg)
 *     {
 *         if (msg->msgId == 100)
 *             printf("%s: %s\n", thread->name, (const char *)msg->pData);
 *         return 0;
 *     }
 *
 *     kiv_thread worker;
 *     if (kiv_thread_create_default(&worker, "worker", handle, NULL) == KIV_OK) {
 *         kiv_message *hello = kiv_message_new(100, 0);
 *         if (hello != NULL) {
 *             hello->pData = "hello";
 *             if (kiv_thread_sendMsg(&worker, hello) != KIV_OK)
 *                 kiv_message_free(hello);
 *         }
 *         kiv_thread_stop(&worker);
 *         kiv_thread_delete(&worker);
 *     }
 * @endcode
 */
#ifndef ZOL_KIV_THREAD_H
#define ZOL_KIV_THREAD_H

#include <stdint.h>

#include "zol/kiv_export.h"

KIV_EXTERN_C_BEGIN

struct _GThread;     /* GLib's thread */
struct _GAsyncQueue; /* GLib's queue between threads */

/** Handled by calling the handler, after which the worker ends. kiv_thread_stop() sends it. */
#define KIV_MSG_ID_EXIT 2

/** The message that the handler gets when none came in time: the same record each time, its pData the text
 * "timeout". */
#define KIV_MSG_ID_TIMEOUT 3

/** A message: a record from kiv_message_new(), with room for a payload of the caller's behind it. */
typedef struct kiv_message {
    int32_t msgId;        /**< what it means; 2 and 3 are the module's */
    void *pData;          /**< the caller's, carried untouched */
    uint32_t reserved[3]; /**< zero */
    uint32_t sizeBytes;   /**< of the whole allocation, payload included */
    int32_t isSync;       /**< set it to 1 before a send to wait until the message is handled */
    int32_t syncTimeout;  /**< carried, without effect: a synchronous send has no time limit */
    void *pBarrier;       /**< the POSIX barrier of a synchronous send, the module's own */
} kiv_message;

typedef struct kiv_thread kiv_thread;

/** Handles one message, on the worker's thread, holding no lock. It never frees the message. It must not stop,
 *  start or join its own worker, nor send to it synchronously: these are refused. If it ends its thread, or the
 *  thread is cancelled in it, the worker ends, and the sender that waits for the message is told KIV_ERR_STATE.
 *  @return 0 to go on; anything else ends the worker after this message. A msgId that it has changed to
 *          KIV_MSG_ID_EXIT ends the worker too. */
typedef int32_t (*kiv_thread_handler)(kiv_thread *thread, kiv_message *msg);

/** The parameters of a new worker. */
typedef struct kiv_thread_params {
    char name[64];              /**< at least 2 characters; shows in the log */
    uint32_t priority;          /**< 0 to 3; kept, but every worker runs at normal priority */
    kiv_thread_handler handler; /**< not null */
    int32_t timeout; /**< how long to wait for a message until the handler gets the time-out message; -1: no
                          limit; below: not at all. Read before every wait: the handler may change it. */
    void *userData;  /**< the caller's, carried untouched */
} kiv_thread_params;

/** A worker. Begins with its parameters. */
struct kiv_thread {
    char name[64];                 /**< this and the next four: see kiv_thread_params */
    uint32_t priority;             /**< as there */
    kiv_thread_handler handler;    /**< as there */
    int32_t timeout;               /**< as there */
    void *userData;                /**< as there */
    struct _GThread *gthread;      /**< the thread, from start until it is joined; null otherwise */
    struct _GAsyncQueue *msgQueue; /**< the queue, from create until delete */
    int32_t running;               /**< see kiv_thread_isRunning() */
};

/** Readies worker threads. Called by zol_init(). @retval KIV_OK Always. */
KIV_API int32_t kiv_thread_init(void);

/** The end of it; workers are not touched. Called by zol_deinit(). @retval KIV_OK Always. */
KIV_API int32_t kiv_thread_deinit(void);

/**
 * Makes a worker that is not started yet. Messages may be sent to it at once: they wait for the start.
 * @retval KIV_OK                 The object is ready.
 * @retval KIV_ERR_INVALID_PARAM  A null argument or handler, a name below 2 characters, a priority above 3.
 */
KIV_API int32_t kiv_thread_create(kiv_thread *thread, const kiv_thread_params *params);

/**
 * Makes and starts a worker with priority 1 and a time-out of 3 seconds. A name above 63 characters is cut.
 * @retval KIV_OK                 It runs.
 * @retval KIV_ERR_INVALID_PARAM  As kiv_thread_create(); the object is deleted again.
 * @retval KIV_ERR_SYSTEM         As kiv_thread_start(); the object is deleted again.
 */
KIV_API int32_t kiv_thread_create_default(kiv_thread *thread, const char *name, kiv_thread_handler handler,
                                          void *userData);

/**
 * Starts a worker, also one that was stopped or has ended by itself; a thread of it that nobody has joined is
 * joined first. Messages that were sent before the first start are handled now.
 * @retval KIV_OK                 It runs.
 * @retval KIV_ERR_SYSTEM         It runs already, or the system has no thread to give; it then counts as
 *                                running, without a worker, until it is deleted.
 * @retval KIV_ERR_STATE          The calling thread is the worker's own, or the object was made before a fork.
 * @retval KIV_ERR_INVALID_PARAM  A null argument, or an object without a queue.
 */
KIV_API int32_t kiv_thread_start(kiv_thread *thread);

/**
 * Sends a message. With isSync set, returns when the handler has returned from it.
 * @retval KIV_OK                 The message is queued (handled, if synchronous) and no longer the caller's.
 * @retval KIV_ERR_INVALID_PARAM  A null argument, a sizeBytes below the record's, or an object without a
 *                                queue.
 * @retval KIV_ERR_NO_MEMORY      No memory for a synchronous send.
 * @retval KIV_ERR_STATE          The worker has ended, also while the message was waiting for it; or a
 *                                synchronous send to a worker that was not started, or by the worker itself.
 */
KIV_API int32_t kiv_thread_sendMsg(kiv_thread *thread, kiv_message *msg);

/**
 * Ends a worker, after the messages that are queued before, and joins it. One that has ended by itself is
 * joined.
 * @retval KIV_OK                 It has ended and is joined.
 * @retval KIV_ERR_STATE          It was never started, is joined already, or is the calling thread.
 * @retval KIV_ERR_INVALID_PARAM  A null argument, or an object without a queue.
 * @retval KIV_ERR_SYSTEM, KIV_ERR_NO_MEMORY  No memory for the message that ends it.
 */
KIV_API int32_t kiv_thread_stop(kiv_thread *thread);

/**
 * Waits until a worker has ended. Several threads may wait, and one may stop the worker meanwhile: all return
 * KIV_OK. A thread that waits here, or in kiv_thread_stop(), is cancelled only afterwards.
 * @retval KIV_OK                 It is joined.
 * @retval KIV_ERR_STATE          It was never started, is joined already, or is the calling thread.
 * @retval KIV_ERR_INVALID_PARAM  A null argument.
 */
KIV_API int32_t kiv_thread_join(kiv_thread *thread);

/** Releases the queue of a worker that was stopped; null is fine. A worker that still runs is reported.
 *  @retval KIV_OK Always. */
KIV_API int32_t kiv_thread_delete(kiv_thread *thread);

/** Lets the calling thread sleep, at least @p us microseconds. */
KIV_API void kiv_thread_sleep(uint32_t us);

/** 1 from the start of a worker until it ends, else 0; 0 too in a forked child of the process that started it. */
KIV_API int32_t kiv_thread_isRunning(kiv_thread *thread);

/**
 * Makes a message. The record is zeroed; the payload behind it is not.
 * @param sizeBytes  Record and payload; 0 for the bare record. Less than a record is reported and made one.
 * @return The message, or null when there is no memory.
 */
KIV_API kiv_message *kiv_message_new(int32_t msgId, uint32_t sizeBytes);

/** Frees a message that is the caller's; null is fine. */
KIV_API void kiv_message_free(kiv_message *msg);

KIV_EXTERN_C_END

#endif
