/**
 * @file kiv_services.h
 * @brief Services that modules and applications share: deadlines, the timed wait, text with a status, the
 *        version. They work without a started library.
 */
#ifndef ZOL_KIV_SERVICES_H
#define ZOL_KIV_SERVICES_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "zol/kiv_export.h"

KIV_EXTERN_C_BEGIN

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

/** Gives the version of the library, and logs it at PRNT.
 *  @param[out] out  6 bytes for "0.1.0"; may be null. @retval KIV_OK Always. */
KIV_API int32_t kiv_get_version(char *out);

KIV_EXTERN_C_END

#endif
