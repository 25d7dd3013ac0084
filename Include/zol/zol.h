/**
 * @file zol.h
 * @brief libzol: hardware services for embedded Linux boards. Includes every module; declares the start, the
 *        stop and the services that all modules share.
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

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_events.h"
#include "zol/kiv_export.h"
#include "zol/kiv_gpio.h"
#include "zol/kiv_i2c.h"
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
 * The text must stay valid until zol_deinit().
 * @retval KIV_OK                 The library is started.
 * @retval KIV_ERR_INVALID_PARAM  A step failed: it is named by the assertion in the log, everything that had
 * been started is stopped again.
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
 * started an assertion is logged and nothing is locked. zol_deinit() holds it while it waits for the modules'
 * threads, so the callbacks of pins must not take it. */
KIV_API void kiv_lock(void);

/** Releases the library lock, which the calling thread holds. */
KIV_API void kiv_unlock(void);

/**
 * Computes the point in time @p timeoutUs from now, for the timed waits of POSIX threads.
 * @param timeoutUs  Microseconds. A negative value gives a point in the past.
 * @param[out] ts    The deadline on CLOCK_REALTIME, normalised.
 * @retval KIV_OK                 @p ts is set.
 * @retval KIV_ERR_SYSTEM         The clock could not be read; @p ts then holds just the time-out.
 * @retval KIV_ERR_INVALID_PARAM  @p ts is null.
 */
KIV_API int32_t kiv_prepare_time_spec(int32_t timeoutUs, struct timespec *ts);

/**
 * Waits once on a condition variable. Any wake-up, a spurious one too, returns KIV_OK: test the predicate
 * again.
 * @param cond       Uses CLOCK_REALTIME (the default).
 * @param mutex      Held by the caller, and again when the call returns.
 * @param timeoutUs  Microseconds; negative: no time limit.
 * @retval KIV_OK                 Woken up.
 * @retval KIV_ERR_TIMEOUT        The time is over.
 * @retval KIV_ERR_SYSTEM         The clock could not be read or the wait failed.
 * @retval KIV_ERR_INVALID_PARAM  @p cond or @p mutex is null; nothing was waited for.
 */
KIV_API int32_t kiv_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, int32_t timeoutUs);

/**
 * sscanf() with a status. How many items were converted is logged at INF2 and not returned: preset the
 * outputs.
 * @retval KIV_OK                 Scanned, however many items that filled.
 * @retval KIV_ERR_INVALID_PARAM  @p s or @p format is null.
 */
KIV_API int32_t kiv_sscanf(const char *s, const char *format, ...) KIV_SCANF_LIKE(2, 3);

/**
 * snprintf() with a status. The text is always terminated within @p maxlen bytes.
 * @param[out] s  At least @p maxlen bytes.
 * @retval KIV_OK                 The whole text is in @p s.
 * @retval KIV_ERR_NO_MEMORY      The text was cut to fit; one ERRR line says so.
 * @retval KIV_ERR_INVALID_PARAM  @p s or @p format is null.
 */
KIV_API int32_t kiv_snprintf(char *s, size_t maxlen, const char *format, ...) KIV_PRINTF_LIKE(3, 4);

/** Gives the version of the library, and logs it at PRNT. May be called before zol_init().
 *  @param[out] out  6 bytes for "0.1.0"; may be null. @retval KIV_OK Always. */
KIV_API int32_t kiv_get_version(char *out);

KIV_EXTERN_C_END

#endif
