/**
 * @file kiv_gpio.h
 * @brief GPIO pins: levels, and callbacks on their interrupts.
 *
 * A pin is allocated by its number, then read, driven, or given a callback, which runs once for each
 * interrupt on the module's listener thread:
 *
 * @code
 *     static int on_button(int32_t gpio, uintptr_t user_data)
 *     {
 *         return kiv_events_notify((kiv_event_item *)user_data, &gpio, sizeof gpio, 0);
 *     }
 *
 *     kiv_gpio_request(17, "button");
 *     kiv_gpio_register_callback(17, KIV_GPIO_EDGE, KIV_GPIO_EDGE_RISING, 0, on_button, (uintptr_t)event);
 *
 *     kiv_gpio_request(5, "lamp");
 *     kiv_gpio_set(5, 1);
 *     ...
 *     kiv_gpio_unregister_callback(17);   // when it has returned, the callback will not run again
 *     kiv_gpio_free(17);
 *     kiv_gpio_free(5);
 * @endcode
 *
 * The board shows a pin as the directory `/sys/user_hw/pins/gpios/gpio_<number>/` of text nodes. An allocated
 * pin keeps its nodes open, so reading a level costs a seek and a read, and setting one a write. In simulator
 * mode a pin needs no board: it is a stored value, and never has an interrupt.
 *
 * A number can be allocated more than once: operations reach the newest of its pins, and each
 * kiv_gpio_free() gives one back. Every operation on a number that is not allocated returns
 * KIV_ERR_INVALID_PARAM after an ERRR line.
 *
 * **Threads.** All operations may be called on all threads at once. Registering, unregistering and freeing
 * wait until the listener has taken notice, and so for callbacks that are running; none of them waits for a
 * listener that is being stopped. After a fork() the child has no listener: in it the module is not started.
 *
 * **Callbacks** hold up all pins and all other operations of this module while they run, the stop included,
 * so they should be short and must not wait: post an event that is sure to be read (a full one holds up its
 * notifiers), send an asynchronous message, do not take kiv_lock() (zol_deinit() holds it). In a callback the
 * operations of this module are refused with KIV_ERR_STATE and an ERRR line, except
 * kiv_gpio_set_simulator_mode(); zol_deinit() must not be called. Signals other than those of faults are
 * blocked there. Of many interrupts at once 256 are called back at a time, the others when the rest of the
 * module has had its turn; what a stop leaves is called back after the next start.
 *
 * **Errors of nodes.** A level that cannot be written or read, and a node that cannot be written at
 * registration, are reported at ERRR and change no result. A pin whose "irq" node reports errors three times
 * in a row, or wakes the listener a thousand times in a row without an interrupt, is no longer watched, after
 * an ERRR line, until its callback is registered anew. Counts that are no numbers, negative or beyond
 * 2,147,483,647 are errors too.
 */
#ifndef ZOL_KIV_GPIO_H
#define ZOL_KIV_GPIO_H

#include <stdint.h>

#include "zol/kiv_export.h"

KIV_EXTERN_C_BEGIN

/**
 * @name What raises an interrupt: level_edge of kiv_gpio_register_callback().
 * @{
 */
#define KIV_GPIO_LEVEL 1 /**< a level that lasts */
#define KIV_GPIO_EDGE  2 /**< a change of the level */
/** @} */

/**
 * @name Which edge: edge_cfg. 0 where the level counts.
 * @{
 */
#define KIV_GPIO_EDGE_RISING  1 /**< from low to high */
#define KIV_GPIO_EDGE_FALLING 2 /**< from high to low */
#define KIV_GPIO_EDGE_BOTH    3 /**< either */
/** @} */

/**
 * @name Which level: level_cfg. 0 where the edge counts.
 * @{
 */
#define KIV_GPIO_LEVEL_LOW  0 /**< low */
#define KIV_GPIO_LEVEL_HIGH 1 /**< high */
/** @} */

/**
 * Runs on the listener thread, once for each interrupt of a pin.
 * @param gpio       The pin's number.
 * @param user_data  What was given at registration.
 * @return Not looked at.
 */
typedef int (*kiv_gpio_cbk)(int32_t gpio, uintptr_t user_data);

/**
 * Starts the module and its listener thread. Called by zol_init(). Pins that are still allocated from before
 * go on working, callbacks included.
 * @retval KIV_OK             Started.
 * @retval KIV_ERR_STATE      It is started already, or this is a callback.
 * @retval KIV_ERR_SYSTEM     No pipe, semaphore or thread; nothing is started.
 * @retval KIV_ERR_NO_MEMORY  The same for memory.
 */
KIV_API int32_t kiv_gpio_init(void);

/**
 * Ends the listener, after a callback that is running. Called by zol_deinit(). Pins stay allocated, with
 * their callbacks, which do not run until the next start.
 * @retval KIV_OK         Ended.
 * @retval KIV_ERR_STATE  It is not started, or this is a callback.
 */
KIV_API int32_t kiv_gpio_deinit(void);

/**
 * Chooses whether the pins that are allocated from now on are simulated (non-zero @p on) or the board's, at
 * first the board's. A pin stays what it was when it was allocated.
 * @retval KIV_OK Always.
 */
KIV_API int32_t kiv_gpio_set_simulator_mode(int on);

/**
 * Allocates a pin.
 * @param gpio  Its number.
 * @param name  A label for kiv_gpio_status_dump(); copied.
 * @retval KIV_OK                 Allocated.
 * @retval KIV_ERR_INVALID_PARAM  @p name is null.
 * @retval KIV_ERR_OPEN           The board has no such pin, or one of its nodes could not be opened.
 * @retval KIV_ERR_SYSTEM         No pipe for a simulated pin.
 * @retval KIV_ERR_NO_MEMORY      No memory.
 * @retval KIV_ERR_STATE          This is a callback.
 */
KIV_API int32_t kiv_gpio_request(int gpio, const char *name);

/**
 * Gives a pin back; its callback, if any, has run for the last time when this returns. The interrupt stays
 * requested and unmasked at the board.
 * @retval KIV_OK                 Given back.
 * @retval KIV_ERR_INVALID_PARAM  It is not allocated.
 * @retval KIV_ERR_STATE          The module is not started, or this is a callback; the pin stays.
 * @retval KIV_ERR_SYSTEM         The listener could not be told; the pin stays.
 */
KIV_API int32_t kiv_gpio_free(int gpio);

/**
 * Drives a pin: high for any non-zero @p value, else low. A simulated pin stores the value as it is.
 * @retval KIV_OK                 Done, or reported at ERRR.
 * @retval KIV_ERR_INVALID_PARAM  It is not allocated.
 * @retval KIV_ERR_STATE          This is a callback.
 */
KIV_API int32_t kiv_gpio_set(int gpio, int value);

/**
 * Reads a pin's level.
 * @param value  Receives 1 or 0, and 0 if the level could not be read, which is reported at ERRR; of a
 *               simulated pin the value that is stored.
 * @retval KIV_OK                 See @p value.
 * @retval KIV_ERR_INVALID_PARAM  The pin is not allocated, or @p value is null.
 * @retval KIV_ERR_STATE          This is a callback.
 */
KIV_API int32_t kiv_gpio_get(int gpio, int *value);

/** Checks that a pin is allocated; the board decides what an input is. @retval KIV_OK It is.
 *  @retval KIV_ERR_INVALID_PARAM It is not. @retval KIV_ERR_STATE This is a callback. */
KIV_API int32_t kiv_gpio_direction_in(int gpio);

/** The same for outputs. */
KIV_API int32_t kiv_gpio_direction_out(int gpio);

/** Logs all pins at INF1, the newest first. @retval KIV_OK Done. @retval KIV_ERR_STATE This is a callback. */
KIV_API int32_t kiv_gpio_status_dump(void);

/**
 * Gives a pin a callback, requests the pin's interrupt from the board and unmasks it. Interrupts from then on
 * are not lost.
 * @param level_edge  KIV_GPIO_LEVEL or KIV_GPIO_EDGE; the board is told this number.
 * @param edge_cfg,level_cfg  Which edge or level. The board's nodes do not take them: they are not used.
 * @param cbk         Not null.
 * @param user_data   For the callback.
 * @retval KIV_OK                 Registered.
 * @retval KIV_ERR_INVALID_PARAM  The pin is not allocated, has a callback already, or @p cbk is null.
 * @retval KIV_ERR_OPEN           One of the pin's interrupt nodes could not be opened.
 * @retval KIV_ERR_SYSTEM         A simulated pin without its pipe, or the listener could not be told.
 * @retval KIV_ERR_STATE          The module is not started, or this is a callback.
 */
KIV_API int32_t kiv_gpio_register_callback(int gpio, int level_edge, int edge_cfg, int level_cfg,
                                           kiv_gpio_cbk cbk, uintptr_t user_data);

/**
 * Takes a pin's callback away; it does not run again once this has returned. The interrupt stays requested
 * and unmasked at the board.
 * @retval KIV_OK                 Unregistered.
 * @retval KIV_ERR_INVALID_PARAM  The pin is not allocated or has no callback.
 * @retval KIV_ERR_STATE          The module is not started, or this is a callback; the callback stays.
 */
KIV_API int32_t kiv_gpio_unregister_callback(int gpio);

KIV_EXTERN_C_END

#endif
