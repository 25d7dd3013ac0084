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
 * A pin is one of three kinds. The board's own is the directory `/sys/user_hw/pins/gpios/gpio_<number>/` of text
 * nodes. An allocated pin keeps its nodes open, so reading a level costs a seek and a read, and setting one a
 * write. On every Linux board a pin can be a line of a GPIO chip, that is of `/dev/gpiochip*`, interface version
 * 2 (Linux 5.10). The configuration gives the chips, and with them the numbers of their lines; see below. In
 * simulator mode a pin needs no board: it is a stored value, and never has an interrupt.
 *
 * A number can be allocated more than once, except that of a line: operations reach the newest of its pins, and
 * each kiv_gpio_free() gives one back. Every operation on a number that is not allocated returns
 * KIV_ERR_INVALID_PARAM after an ERRR line.
 *
 * **Threads.** All operations may be called on all threads at once. Registering, unregistering and freeing
 * wait until the listener has taken notice, and so for callbacks that are running; none of them waits for a
 * listener that is being stopped. A thread cannot be cancelled inside an operation. The listener's thread is
 * named `kiv_gpio`.
 *
 * **Callbacks** hold up all pins and all other operations of this module while they run, the stop included,
 * so they should be short and must not wait: post an event that is sure to be read (a full one holds up its
 * notifiers), send an asynchronous message, do not take kiv_lock() (zol_deinit() holds it). In a callback the
 * operations of this module are refused with KIV_ERR_STATE and an ERRR line, except
 * kiv_gpio_set_simulator_mode(); zol_deinit() must not be called, and the thread must not be ended. Signals
 * other than those of faults are blocked there. Of many interrupts at once 256 are called back at a time, the
 * others when the rest of the module has had its turn; after a stop the others follow at the next start.
 * Interrupts that have been read are lost only when their callback is unregistered or their pin is freed.
 *
 * **Stops.** Pins outlive a stop, callbacks included: they are active again at the next start. Unregister the
 * callbacks and free the pins that are not to be before the stop, since both need the listener.
 *
 * **Forks.** A fork() never waits for a callback. The child has no listener: in it the module is not started,
 * its pins are still allocated, and all operations answer at once. A child that was forked by a callback ends
 * when the callback returns, unless it has ended or become another program before; until then it is refused
 * what a callback is refused.
 *
 * **Descriptors.** A program that closes all its descriptors, as daemons do, must do so before the start.
 * Afterwards it would close the listener's command pipe as well: the listener then ends after an ERRR line, and
 * registering, unregistering and freeing return KIV_ERR_STATE until the module is stopped and started again.
 *
 * **Lines of GPIO chips.** The start of the module reads the chips from the section "general" of the
 * configuration, and an allocation the keys of its pin. All keys are optional; without "gpio_chips_num" no pin
 * is a line. Numbers outside of all chips are the board's.
 *
 * | key                        | value                                                                  |
 * |----------------------------|------------------------------------------------------------------------|
 * | "gpio_chips_num"           | the number of chips, 0 to 16: 2 sets up the chips 0 and 1               |
 * | "gpio_chip_0_dev"          | the chip's node, with a slash in it, or its label: "pinctrl-bcm2711"    |
 * | "gpio_chip_0_first"        | the pin number of its line 0, 0 to 65535; 0 when missing                |
 * | "gpio_17_bias"             | of pin 17: "pull-up", "pull-down" or "disabled"; unchanged when missing |
 * | "gpio_17_active_low"       | 1: a low level is 1, and a falling edge rises                           |
 * | "gpio_17_debounce_us"      | the time for which a level must last, in µs, where the pin is an input  |
 *
 * An allocated line belongs to the program until it is freed or the program ends. Its consumer is the name that
 * was given, cut to 31 characters. A line that is in use, also by this program, is refused with KIV_ERR_OPEN; the
 * ERRR line names the consumer. The line is taken as it is. kiv_gpio_set() makes it an output, the first time,
 * and kiv_gpio_register_callback() an input; a bias or a debounce time makes it an input when it is allocated. A
 * pin with a callback stays an input until that is unregistered: setting it is reported at ERRR. A line that is
 * freed stays as it is.
 *
 * Interrupts of a line are edges; levels are refused. The kernel keeps 512 edges while callbacks run or the
 * module is stopped. If more happen, the oldest are lost, and an ERRR line says how many.
 *
 * A chip that is missing, does not open or overlaps another is reported at ERRR by the start, and left out until
 * the next start. When a chip is removed, its pins report errors and have no more interrupts. They can be freed,
 * and allocated again when the chip is back.
 *
 * **Errors of nodes.** A level that cannot be written or read, and a node that cannot be written at
 * registration, are reported at ERRR and change no result. A pin whose "irq" node reports an error, cannot be
 * read or gives no possible count is left alone for 100 ms and then tried again, until it works: one ERRR line
 * says that it has failed, one PRNT line that it works again. Counts that are no numbers, negative or beyond
 * 2,147,483,647 are impossible. A node that wakes the listener eight times within 100 ms without an interrupt
 * is not asked for `POLLIN` any more, only for `POLLPRI`, until the pins with callbacks change: an attribute of
 * an ordinary sysfs is readable at all times. If it has claimed `POLLPRI`, it is left alone for 100 ms.
 */
#ifndef ZOL_KIV_GPIO_H
#define ZOL_KIV_GPIO_H

#include <stdint.h>

#include "zol/kiv_export.h"

KIV_EXTERN_C_BEGIN

/**
 * @name The cause of an interrupt: level_edge of kiv_gpio_register_callback().
 * @{
 */
#define KIV_GPIO_LEVEL 1 /**< a level that lasts */
#define KIV_GPIO_EDGE  2 /**< a change of the level */
/** @} */

/**
 * @name The edge: edge_cfg. 0 where the level counts.
 * @{
 */
#define KIV_GPIO_EDGE_RISING  1 /**< from low to high */
#define KIV_GPIO_EDGE_FALLING 2 /**< from high to low */
#define KIV_GPIO_EDGE_BOTH    3 /**< either */
/** @} */

/**
 * @name The level: level_cfg. 0 where the edge counts.
 * @{
 */
#define KIV_GPIO_LEVEL_LOW  0 /**< low */
#define KIV_GPIO_LEVEL_HIGH 1 /**< high */
/** @} */

/**
 * Runs on the listener thread, once for each interrupt of a pin.
 * @param gpio       The pin's number.
 * @param user_data  The word that was given at registration.
 * @return Not looked at.
 */
typedef int (*kiv_gpio_cbk)(int32_t gpio, uintptr_t user_data);

/**
 * Starts the module and its listener thread. Called by zol_init(). The callbacks of pins that are still
 * allocated from before are active again.
 * @retval KIV_OK             Started.
 * @retval KIV_ERR_STATE      It is started already, or this is a callback.
 * @retval KIV_ERR_SYSTEM     No pipe, semaphore or thread; nothing is started.
 * @retval KIV_ERR_NO_MEMORY  No memory; nothing is started.
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
 * @retval KIV_ERR_INVALID_PARAM  @p name is null, or a key of the pin has a value that is not possible.
 * @retval KIV_ERR_OPEN           The board has no such pin, or one of its nodes could not be opened; a line is in
 *                                use, or its chip refuses it.
 * @retval KIV_ERR_SYSTEM         No pipe for a simulated pin, or a line that cannot be set up.
 * @retval KIV_ERR_NO_MEMORY      No memory.
 * @retval KIV_ERR_STATE          This is a callback.
 */
KIV_API int32_t kiv_gpio_request(int gpio, const char *name);

/**
 * Gives a pin back; its callback, if any, has run for the last time when this returns. The interrupt stays
 * requested and unmasked at the board, while a line is released.
 * @retval KIV_OK                 Given back.
 * @retval KIV_ERR_INVALID_PARAM  It is not allocated.
 * @retval KIV_ERR_STATE          The module is not started, its listener has ended, or this is a callback; the
 *                                pin stays.
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

/**
 * Checks that a pin is allocated; the board decides what an input is, or the first kiv_gpio_set() of a line.
 * @retval KIV_OK                 It is allocated.
 * @retval KIV_ERR_INVALID_PARAM  It is not.
 * @retval KIV_ERR_STATE          This is a callback.
 */
KIV_API int32_t kiv_gpio_direction_in(int gpio);

/** The same for outputs. */
KIV_API int32_t kiv_gpio_direction_out(int gpio);

/**
 * Logs all pins at INF1, the newest first.
 * @retval KIV_OK         Done.
 * @retval KIV_ERR_STATE  This is a callback.
 */
KIV_API int32_t kiv_gpio_status_dump(void);

/**
 * Gives a pin a callback, requests the pin's interrupt from the board and unmasks it. Interrupts from then on
 * are not lost.
 * @param level_edge          KIV_GPIO_LEVEL or KIV_GPIO_EDGE; the board is told this number. Of a line
 *                            KIV_GPIO_EDGE.
 * @param edge_cfg,level_cfg  The edge or the level. The board's nodes do not take them: they are not used. A
 *                            line detects the edges of @p edge_cfg.
 * @param cbk                 Not null.
 * @param user_data           For the callback.
 * @retval KIV_OK                 Registered.
 * @retval KIV_ERR_INVALID_PARAM  The pin is not allocated, has a callback already, @p cbk is null, or a line
 *                                was asked for a level or for no edge.
 * @retval KIV_ERR_OPEN           One of the pin's interrupt nodes could not be opened.
 * @retval KIV_ERR_NO_MEMORY      No memory to watch one more pin.
 * @retval KIV_ERR_SYSTEM         A simulated pin without its pipe, a line that detects no edges, or the listener
 *                                could not be told.
 * @retval KIV_ERR_STATE          The module is not started, its listener has ended, or this is a callback.
 */
KIV_API int32_t kiv_gpio_register_callback(int gpio, int level_edge, int edge_cfg, int level_cfg,
                                           kiv_gpio_cbk cbk, uintptr_t user_data);

/**
 * Takes a pin's callback away; it does not run again once this has returned. The interrupt stays requested
 * and unmasked at the board. A line detects no more edges.
 * @retval KIV_OK                 Unregistered.
 * @retval KIV_ERR_INVALID_PARAM  The pin is not allocated or has no callback.
 * @retval KIV_ERR_STATE          The module is not started, its listener has ended, or this is a callback; the
 *                                callback stays.
 */
KIV_API int32_t kiv_gpio_unregister_callback(int gpio);

KIV_EXTERN_C_END

#endif
