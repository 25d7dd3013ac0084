// The services that all modules share: deadlines, the timed wait, text with a status, the version.

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/version.h"
#include "kiv_debug/log_as.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_services.h"
#include "zol/kiv_status.h"

namespace
{

constexpr long us_per_second = 1'000'000;
constexpr long ns_per_us = 1'000;
constexpr long ns_per_second = 1'000'000'000;

// A negative timeout gives a point in the past, so the nanoseconds may be out of range on either side.
void normalise(timespec &ts) noexcept
{
    if (ts.tv_nsec >= ns_per_second) {
        ts.tv_nsec -= ns_per_second;
        ts.tv_sec += 1;
    } else if (ts.tv_nsec < 0) {
        ts.tv_nsec += ns_per_second;
        ts.tv_sec -= 1;
    }
}

// Its failure is logged and no more: callers look at their condition again, as after a spurious wake-up.
int32_t wait_without_limit(pthread_cond_t *cond, pthread_mutex_t *mutex, kiv::call_site site)
{
    const int result = pthread_cond_wait(cond, mutex);
    if (result != 0) {
        KIV_LOG_AT(site, ERRR, "failed pthread_cond_wait = %d\n", result);
    }
    return KIV_OK;
}

int32_t wait_until(const timespec &deadline, pthread_cond_t *cond, pthread_mutex_t *mutex,
                   kiv::call_site site)
{
    const int result = pthread_cond_timedwait(cond, mutex, &deadline);
    if (result == 0) {
        return KIV_OK;
    }
    if (result == ETIMEDOUT) {
        KIV_LOG_AT(site, PRNT, "timeout reached %d on cond\n", result);
        return KIV_ERR_TIMEOUT;
    }
    KIV_LOG_AT(site, ERRR, "pthread_cond_timedwait = %d\n", result);
    return KIV_ERR_SYSTEM;
}

} // namespace

int32_t kiv_prepare_time_spec(int32_t timeoutUs, struct timespec *ts)
{
    if (!KIV_GIVEN(ts != nullptr, "nowhere to put the deadline")) {
        return KIV_ERR_INVALID_PARAM;
    }
    timespec deadline{};
    const bool read = clock_gettime(CLOCK_REALTIME, &deadline) == 0;
    if (!KIV_HOLDS(read)) {
        KIV_LOG_ERRR("can't read the clock: errno %d\n", errno);
    }
    deadline.tv_sec += timeoutUs / us_per_second;
    deadline.tv_nsec += timeoutUs % us_per_second * ns_per_us;
    normalise(deadline);
    *ts = deadline;
    return read ? KIV_OK : KIV_ERR_SYSTEM;
}

int32_t kiv_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, int32_t timeoutUs)
{
    if (!KIV_GIVEN(cond != nullptr && mutex != nullptr, "no condition variable, or no mutex")) {
        return KIV_ERR_INVALID_PARAM;
    }
    if (timeoutUs < 0) {
        return wait_without_limit(cond, mutex, kiv::call_site::here());
    }
    timespec deadline{};
    const int32_t status = kiv_prepare_time_spec(timeoutUs, &deadline);
    if (!KIV_HOLDS(status == KIV_OK)) {
        KIV_LOG_ERRR("no deadline %d us from now: not waiting\n", timeoutUs);
        return status;
    }
    return wait_until(deadline, cond, mutex, kiv::call_site::here());
}

int32_t kiv_sscanf(const char *s, const char *format, ...)
{
    if (s == nullptr || format == nullptr) {
        return KIV_ERR_INVALID_PARAM;
    }
    va_list arguments;
    va_start(arguments, format);
    const int found = std::vsscanf(s, format, arguments);
    va_end(arguments);
    KIV_LOG_INF2("foundItems (%s)(%s) = %d\n", s, format, found);
    return KIV_OK;
}

int32_t kiv_snprintf(char *s, size_t maxlen, const char *format, ...)
{
    if (s == nullptr || format == nullptr) {
        return KIV_ERR_INVALID_PARAM;
    }
    va_list arguments;
    va_start(arguments, format);
    const int needed = std::vsnprintf(s, maxlen, format, arguments);
    va_end(arguments);
    const int space = static_cast<int>(maxlen); // for the log, which shows both as %d
    KIV_LOG_INF2("writtenBytes (%s) = %d / %d\n", maxlen > 0 ? s : "", needed, space);
    if (maxlen > static_cast<size_t>(needed)) { // a formatting error, -1, counts as too long
        return KIV_OK;
    }
    KIV_LOG_ERRR("not enough space provided by the user %d / %d\n", space, needed);
    return KIV_ERR_NO_MEMORY;
}

int32_t kiv_get_version(char *out)
{
    if (out != nullptr) {
        std::memcpy(out, kiv::version, sizeof kiv::version);
    }
    KIV_LOG_PRNT("Version : %s\n", kiv::version);
    return KIV_OK;
}
