/**
 * @file kiv_events.h
 * @brief Named events with payloads: threads of one process notify and wait for each other.
 *
 * Events live in named groups. A notification puts one record with a payload into the event's pipe; a waiter
 * takes one record per event and call, in the order in which they were sent:
 *
 * @code
 *     kiv_event_group *group = NULL;
 *     kiv_event_item *door = NULL;
 *     kiv_events_create_group("sensors", &group);
 *     kiv_events_create_event("door", NULL, group, &door);
 *     kiv_events_set_enable_event(door, 1);               // a new event is disabled
 *
 *     kiv_events_notify(door, "open", 5, 0);              // on any thread
 *
 *     char text[64];
 *     kiv_event_wait_entry entry = {"door", 0, text, sizeof text, 0};
 *     if (kiv_events_wait_for(&entry, 1, 1000000) == KIV_OK && entry.fired)
 *         printf("%.*s\n", (int)entry.actual_sz, text);
 *
 *     kiv_events_delete_event(door);
 *     kiv_events_delete_group(group);
 * @endcode
 *
 * **An application's own main loop** polls the descriptor of kiv_events_get_event_fd() for POLLIN and reads
 * records from it. A record is
 *
 * | offset | size | content                                                       |
 * |--------|------|---------------------------------------------------------------|
 * | 0      | 4    | the number 0xDEADBEEF, unsigned, in the processor's byte order |
 * | 4      | 4    | the length of the payload, the same way                       |
 * | 8      | any  | the payload                                                   |
 *
 * and must be read whole, payload included, before the next. The descriptor does not block. A record of at
 * most PIPE_BUF (4,096) bytes is there at once; a longer one may arrive in pieces. One event is read either
 * this way or by kiv_events_wait_for(), not both.
 *
 * **Handles** are looked up among the live groups and events before they are used: a stale or
 * invalid one is refused with KIV_ERR_INVALID_PARAM, whatever its value. A deleted handle does not come back
 * as that of a newer group or event until 1,024 others of its kind have been deleted after it; the module keeps
 * up to so many records for this (some 300 bytes each, 200 on 32 bits). A handle shows in the log as the number
 * that it is.
 *
 * **Names** need not be unique. Of several events of one name the newest one of the newest group that has one
 * is found. Names are kept up to 63 characters; an event whose name was longer is found by the 63 kept.
 *
 * **Threads.** All operations may be called on all threads at once, also while others wait or are blocked in
 * a notification; notifications of one event come through as whole records, one after another, whatever their
 * size. Two waiters that are woken by the same record race for it; the loser's entry does not fire, and an ERRR
 * line says that there was no record left.
 *
 * An event may be deleted while other threads use it. Notifications that are blocked in it and waits for it
 * end at once with KIV_ERR_INVALID_PARAM and one ERRR line. The deletion does not wait for them: a callback
 * that is running at that moment may go on after it.
 *
 * **Processes.** Descriptors are closed on exec. A forked child has its own copy of the registry and shares the
 * pipes of the events that exist by then: a record that one process sends may be read by the other. Between the
 * two only records of at most PIPE_BUF bytes (payloads of 4,088) are sure to arrive whole, and only one of them
 * should read an event. Deleting such an event in the child leaves the parent's alone; while the parent lives,
 * it does not end what other threads of the child are doing with the event. Events that the child creates are
 * its own and work as usual. In the child no call is held up by what other threads were doing at the fork.
 *
 * All operations that take a handle or a name return KIV_ERR_INVALID_PARAM, after an ERRR line, where it
 * stands for no live group or event. Groups and events outlive kiv_events_deinit().
 */
#ifndef ZOL_KIV_EVENTS_H
#define ZOL_KIV_EVENTS_H

#include <stdint.h>

#include "zol/kiv_export.h"

KIV_EXTERN_C_BEGIN

typedef struct kiv_event_group kiv_event_group; /**< a group; from create until delete the module's */
typedef struct kiv_event_item kiv_event_item;   /**< an event; from create until delete the module's */

/**
 * Sees each notification of an enabled event first, on the notifying thread. Other notifications of the same
 * event wait meanwhile. The callback may notify its own event, and events without a callback; two events
 * whose callbacks notify each other would wait for each other. It may delete the event, and should then return
 * 0: the notification can no longer be sent.
 * @param container  The last record that was sent, header and all, and zeros behind it; null before the first.
 *                   Good until the callback returns or notifies.
 * @param payload    The notifier's bytes, @p size of them.
 * @param userArg    What the notifier passed.
 * @return 0 when the notification is taken care of and nothing is to be sent; anything else sends it.
 */
typedef int32_t (*kiv_events_notify_cb)(void *container, const void *payload, uint32_t size,
                                        uint32_t userArg);

/** One of the events that a call of kiv_events_wait_for() waits for. */
typedef struct kiv_event_wait_entry {
    const char *pname;  /**< its name */
    int32_t fired;      /**< becomes 1 when a payload was delivered; never cleared: set it to 0 before */
    void *p_data;       /**< where the payload goes; may be null if data_sz is 0 */
    uint32_t data_sz;   /**< room there, in bytes; a longer payload is cut */
    uint32_t actual_sz; /**< how many bytes were placed there, when fired */
} kiv_event_wait_entry;

/** Starts the module. Called by zol_init(). Groups that are left from before are reported and stay.
 *  @retval KIV_OK Started. @retval KIV_ERR_STATE It is started already. */
KIV_API int32_t kiv_events_init(void);

/** Ends the module; groups and events stay as they are. Called by zol_deinit().
 *  @retval KIV_OK Ended. @retval KIV_ERR_STATE It is not started. */
KIV_API int32_t kiv_events_deinit(void);

/** Keeps whether the board is simulated (non-zero @p on). Events work alike either way.
 *  @retval KIV_OK Always. */
KIV_API int32_t kiv_events_set_simulator_mode(int32_t on);

/**
 * Makes an empty group.
 * @param name  May be empty, and need not be unique.
 * @param out   Receives the handle.
 * @retval KIV_OK                 The group is there.
 * @retval KIV_ERR_INVALID_PARAM  A null argument.
 * @retval KIV_ERR_NO_MEMORY      Nothing was made.
 */
KIV_API int32_t kiv_events_create_group(const char *name, kiv_event_group **out);

/** Deletes an empty group. @retval KIV_OK It is gone. @retval KIV_ERR_STATE It still has events and stays.
 *  @retval KIV_ERR_INVALID_PARAM No live group. */
KIV_API int32_t kiv_events_delete_group(kiv_event_group *group);

/**
 * Makes an event in a group. It is disabled: notifications are dropped until it is enabled.
 * @param name       May be empty, and need not be unique.
 * @param notify_cb  Sees notifications first; may be null.
 * @param out        Receives the handle.
 * @retval KIV_OK                 The event is there.
 * @retval KIV_ERR_INVALID_PARAM  No live group, or a null name or @p out.
 * @retval KIV_ERR_NO_MEMORY, KIV_ERR_SYSTEM  No memory, no descriptors; nothing was made.
 */
KIV_API int32_t kiv_events_create_event(const char *name, kiv_events_notify_cb notify_cb,
                                        kiv_event_group *group, kiv_event_item **out);

/** Deletes an event, and with it the notifications that nobody has taken. Calls that are using it end.
 *  @retval KIV_OK It is gone. @retval KIV_ERR_INVALID_PARAM No live event. */
KIV_API int32_t kiv_events_delete_event(kiv_event_item *item);

/** The same, by name. */
KIV_API int32_t kiv_events_delete_event_by_name(const char *name);

/** Enables (non-zero) or disables an event. @retval KIV_OK Done. @retval KIV_ERR_INVALID_PARAM No live event.
 */
KIV_API int32_t kiv_events_set_enable_event(kiv_event_item *item, int32_t enable);

/** The same, by name. */
KIV_API int32_t kiv_events_set_enable_event_by_name(const char *name, int32_t enable);

/** Logs all groups and their events at PRNT, the newest first. @retval KIV_OK Always. */
KIV_API int32_t kiv_events_status_dump(void);

/**
 * Sends a payload to an event. Waits while the event's pipe is full, without limit. Steady traffic allocates
 * nothing: until it is deleted, the event keeps room for the largest record that was ever sent to it. On the
 * waiters' side room is kept for payloads of up to 64 KiB.
 * @param payload  @p size bytes; may be null if @p size is 0.
 * @param userArg  For the event's callback only.
 * @retval KIV_OK                 Sent, or taken by the callback, or dropped because the event is disabled.
 * @retval KIV_ERR_INVALID_PARAM  No live event, or it was deleted during the call; a null payload with a size,
 *                                or a size above 4,294,967,287.
 * @retval KIV_ERR_NO_MEMORY      No memory for the record.
 * @retval KIV_ERR_SYSTEM         The pipe could not be written.
 */
KIV_API int32_t kiv_events_notify(kiv_event_item *item, const void *payload, uint32_t size, uint32_t userArg);

/** The same, by name. */
KIV_API int32_t kiv_events_notify_by_name(const char *name, const void *payload, uint32_t size,
                                          uint32_t userArg);

/**
 * The descriptor from which an event's records are read. It stays the event's, and the same until the event
 * is deleted: do not close it.
 * @retval KIV_OK                 Stored through @p out.
 * @retval KIV_ERR_INVALID_PARAM  No live event of that name, or a null argument.
 */
KIV_API int32_t kiv_events_get_event_fd(const char *name, int32_t *out);

/**
 * Waits until at least one of some events has been notified, then takes one record of each that has. While a
 * long record arrives in pieces, the other events are served.
 * @param entries    The events and the buffers. An entry that did not fire is unchanged, except that its
 *                   buffer may hold a part of a record that was lost.
 * @param timeoutUs  The limit in microseconds, of which whole milliseconds count: below 1,000 the call looks
 *                   once and does not wait. 0 or less: no limit.
 * @retval KIV_OK                 See which entries have fired. All reads may have failed, each with an ERRR
 *                                line.
 * @retval KIV_ERR_TIMEOUT        Nothing came in time. The part of a record longer than PIPE_BUF that has come
 *                                is kept, and the record delivered, whole, by a later wait. If there is no
 *                                memory to keep it, the record is lost, and an ERRR line says so.
 * @retval KIV_ERR_INVALID_PARAM  An entry names no live event or has room but no buffer, @p entries is null,
 *                                or @p count 0; nothing was taken. Or an event was deleted during the call,
 *                                and nothing was delivered of the others.
 * @retval KIV_ERR_NO_MEMORY      No memory to wait on more than 64 events. Nothing was taken.
 * @retval KIV_ERR_SYSTEM         The system refused to wait, as it does on more events than a process may
 *                                have descriptors, or for want of memory. Nothing was taken.
 */
KIV_API int32_t kiv_events_wait_for(kiv_event_wait_entry *entries, uint32_t count, int32_t timeoutUs);

KIV_EXTERN_C_END

#endif
