// A mutex that clang's thread-safety analysis understands, over the POSIX mutex that the library's C face
// needs.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#    define KIV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#    define KIV_THREAD_ANNOTATION(x)
#endif

#define KIV_CAPABILITY(name)  KIV_THREAD_ANNOTATION(capability(name))
#define KIV_SCOPED_CAPABILITY KIV_THREAD_ANNOTATION(scoped_lockable)
#define KIV_GUARDED_BY(mutex) KIV_THREAD_ANNOTATION(guarded_by(mutex))
#define KIV_REQUIRES(...)     KIV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KIV_ACQUIRE(...)      KIV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KIV_RELEASE(...)      KIV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace kiv
{

// Statically initialised and never destroyed: usable before main() and during exit.
class KIV_CAPABILITY("mutex") mutex
{
public:
    constexpr mutex() noexcept = default;
    mutex(const mutex &) = delete;
    mutex &operator=(const mutex &) = delete;

    void lock() noexcept KIV_ACQUIRE() { pthread_mutex_lock(&native_); }
    void unlock() noexcept KIV_RELEASE() { pthread_mutex_unlock(&native_); }

protected:
    explicit constexpr mutex(const pthread_mutex_t &initial) noexcept : native_(initial) {}

private:
    pthread_mutex_t native_ = PTHREAD_MUTEX_INITIALIZER;
};

// The thread that holds it may lock it again.
class recursive_mutex : public mutex
{
public:
    constexpr recursive_mutex() noexcept : mutex(initial) {}

private:
    static constexpr pthread_mutex_t initial = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};

class KIV_SCOPED_CAPABILITY scoped_lock
{
public:
    explicit scoped_lock(mutex &held) noexcept KIV_ACQUIRE(held) : held_(held) { held_.lock(); }
    ~scoped_lock() KIV_RELEASE() { held_.unlock(); }
    scoped_lock(const scoped_lock &) = delete;
    scoped_lock &operator=(const scoped_lock &) = delete;

private:
    mutex &held_;
};

} // namespace kiv
