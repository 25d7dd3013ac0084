/**
 * @file zol.h
 * @brief libzol: hardware services for embedded Linux boards. Includes every module; declares the start, the
 *        stop and the library lock.
 *
 * @code
 *     #include <zol/zol.h>
 *
 *     int main(void)
 *     {
 *         if (zol_init(NULL) != KIV_OK)          // reads /etc/kiv/conf.xml
 *             return 1;
 *         // ... open I2C devices, read tokens, log ...
 *         return zol_deinit() == KIV_OK ? 0 : 1;
 *     }
 * @endcode
 *
 * The library runs on the threads of the application. Unless a comment says otherwise, an operation may be
 * called from any thread between zol_init() and zol_deinit(), which are called from one thread. Time-outs are
 * given in microseconds. Strings are zero-terminated and stay the caller's.
 */
#ifndef ZOL_ZOL_H
#define ZOL_ZOL_H

#include <stdint.h>

#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_events.h"
#include "zol/kiv_export.h"
#include "zol/kiv_gpio.h"
#include "zol/kiv_i2c.h"
#include "zol/kiv_services.h"
#include "zol/kiv_spi.h"
#include "zol/kiv_status.h"
#include "zol/kiv_test.h"
#include "zol/kiv_thread.h"
#include "zol/kiv_timinglog.h"
#include "zol/kiv_token.h"

KIV_EXTERN_C_BEGIN

/**
 * Starts the library: loads the configuration, then starts the modules in a fixed order, and stops at the
 * first that fails. A library that is started already is left as it is.
 * @param configFile  The configuration file; null for "/etc/kiv/conf.xml". Where no file of that name exists,
 *                    "/usr/bin/zol_choose_conf.sh" is run and the first word that it prints names the file.
 *                    The text must stay valid until zol_deinit().
 * @retval KIV_OK                 The library is started.
 * @retval KIV_ERR_INVALID_PARAM  A step failed; the log names it. Everything that had been started is stopped
 *                                again.
 */
KIV_API int32_t zol_init(const char *configFile);

/**
 * Stops the library. The caller sees to it that no other thread uses the library any more, and does not hold
 * the library lock. The registered test modules are forgotten, also when the library is not started.
 * @retval KIV_OK         The library is stopped.
 * @retval KIV_ERR_STATE  The library is not started; one ERRR line says so.
 */
KIV_API int32_t zol_deinit(void);

/** Takes the library lock, a mutex for the application's own use. Not recursive. On a library that is not
 *  started an assertion is logged and nothing is locked. zol_deinit() holds it while it waits for the modules'
 *  threads, so the callbacks of pins must not take it. In a forked child the lock is free, unless the thread
 *  that forked held it: then it is still held there. */
KIV_API void kiv_lock(void);

/** Releases the library lock, which the calling thread holds. */
KIV_API void kiv_unlock(void);

KIV_EXTERN_C_END

#endif
