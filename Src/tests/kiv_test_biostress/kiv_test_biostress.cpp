// The storage stress test: many workers that write files, read them back, and write the next.

#include <getopt.h>
#include <pthread.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include "common/cancellation.h"
#include "common/owner.h"
#include "kiv_debug/log_as.h"
#include "kiv_test/option_loop.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"
#include "zol/kiv_test.h"
#include "zol/kiv_thread.h"

using kiv::call_site;

namespace
{

constexpr uint32_t most_threads = 100;
constexpr uint32_t run_time_us = 5'000'000;
constexpr char worker_name[] = "stress";

// The tunables keep their values from one run to the next.
uint32_t threads = 10;
uint32_t files = 10; // highest file index of a worker
uint32_t file_size = 1'048'576;
uint32_t delay = 100; // microseconds without a message, after which a worker writes its next file

constexpr char handler_routine[] = "_test_thread_handleMsg";

using owned_block = kiv::owner<char, free>;
using owned_file = kiv::owner<FILE, fclose>;

const char *buffer; // what all workers write; set while none of them runs
timeval g_start_tp;
pthread_mutex_t g_printsMutex;

// The handler finds its record as the user data of its worker.
struct stressWorker {
    uint32_t index;
    const char *name;
    char path[52];
    uint32_t fileIndex; // of the file written last
    kiv_thread thread;
    uint32_t msgCount;
};

// The steps of a message, each of which may fail.
enum step { open_step, write_step, read_step, compare_step, steps };

// A worker meets the same failure for every file: each cause is reported once.
struct reporting_worker : stressWorker {
    int reported[steps]; // the errno that was reported last

    bool is_news(step where, int cause) noexcept { return std::exchange(reported[where], cause) != cause; }
};

constexpr int no_errno = -1; // the cause of what is no failed call

struct stamp {
    int seconds;
    int milliseconds; // within the current second
};

stamp stamp_now()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return {static_cast<int>(now.tv_sec - g_start_tp.tv_sec), static_cast<int>(now.tv_usec / 1000)};
}

// A line of the test's own, with a time counted from its start.
#define STRESS_LOG(site, text, ...)                                                                          \
    do {                                                                                                     \
        const kiv::cancellation_off uncancelled;                                                             \
        pthread_mutex_lock(&g_printsMutex);                                                                  \
        const stamp at = stamp_now();                                                                        \
        KIV_LOG_AT(site, PRNT, "t(%3d.%-3d) \033[36m" text "\n\033[0m", at.seconds,                          \
                   at.milliseconds __VA_OPT__(, ) __VA_ARGS__);                                              \
        pthread_mutex_unlock(&g_printsMutex);                                                                \
    } while (0)

// Counts the bytes of a file. Stops when it holds more than were written.
std::size_t count_bytes(FILE *file)
{
    char block[2048];
    std::size_t total = 0;
    for (std::size_t got = 1; got > 0 && total <= file_size;) {
        got = std::fread(block, 1, sizeof block, file);
        total += got;
    }
    return total;
}

void report(reporting_worker &worker, step where, const char *what, int error)
{
    if (worker.is_news(where, error)) {
        KIV_LOG_AS(handler_routine, ERRR, "Can't %s file %s, errno %d\n", what, worker.path, error);
    }
}

void read_back(reporting_worker &worker, FILE *file)
{
    std::fseek(file, 0, SEEK_SET);
    const std::size_t read = count_bytes(file);
    if (std::ferror(file) != 0) {
        report(worker, read_step, "read", errno);
    } else if (read != file_size && worker.is_news(compare_step, no_errno)) {
        KIV_LOG_AS(handler_routine, ERRR, "File %s holds %zu bytes, %u were written\n", worker.path, read,
                   file_size);
    }
}

void write_and_read_back(reporting_worker &worker)
{
    const owned_file file(std::fopen(worker.path, "w+e"));
    if (file == nullptr) {
        report(worker, open_step, "open", errno);
    } else if (std::fwrite(buffer, 1, file_size, file.get()) != file_size || std::fflush(file.get()) != 0) {
        report(worker, write_step, "write", errno);
    } else {
        read_back(worker, file.get());
    }
}

int32_t _test_thread_handleMsg(kiv_thread *thread, kiv_message *)
{
    auto *const worker = static_cast<reporting_worker *>(thread->userData);
    ++worker->msgCount;
    worker->fileIndex = worker->fileIndex + 1 > files ? 0 : worker->fileIndex + 1;
    std::snprintf(worker->path, sizeof worker->path, "/media/internal/stress_%d_file_%d.bin",
                  static_cast<int>(worker->index), static_cast<int>(worker->fileIndex));
    if (buffer != nullptr) { // without memory the workers run, and write nothing
        write_and_read_back(*worker);
    }
    // Set by each message: a worker starts with the default, which is too long for a stress.
    thread->timeout = static_cast<int32_t>(delay);
    return 0;
}

constexpr char shortOptions[] = "t:f:d:s:l";

constexpr option longOptions[] = {
    {"threads", required_argument, nullptr, 't'},
    {"files", required_argument, nullptr, 'f'},
    {"delay", required_argument, nullptr, 'd'},
    {"size", required_argument, nullptr, 's'},
    {nullptr, 0, nullptr, 0},
};

void apply_option(int letter, bool &run_forever)
{
    switch (letter) {
    case 'd':
        delay = static_cast<uint32_t>(stoi(optarg));
        std::printf("delay is %d \n", static_cast<int>(delay));
        break;
    case 'f':
        files = static_cast<uint32_t>(stoi(optarg));
        std::printf("files is %d\n", static_cast<int>(files));
        break;
    case 'l':
        std::printf("freeplay");
        run_forever = true;
        break;
    case 's':
        file_size = static_cast<uint32_t>(stoi(optarg));
        std::printf("file_size is %d\n", static_cast<int>(file_size));
        break;
    case 't':
        threads = std::min(static_cast<uint32_t>(stoi(optarg)), most_threads);
        std::printf("threads is %d\n", static_cast<int>(threads));
        break;
    default:
        break;
    }
}

// @return True: run forever.
bool parse_options(int argc, char **argv, bool run_forever)
{
    kiv::for_each_option(argc, argv, shortOptions, longOptions,
                         [&run_forever](int letter) { apply_option(letter, run_forever); });
    return run_forever;
}

// The first failure ends the creation; the workers before it run.
bool create_workers(reporting_worker *workers, call_site site)
{
    for (uint32_t index = 0; index < threads; ++index) {
        reporting_worker &worker = workers[index];
        worker.index = index;
        worker.name = worker_name;
        STRESS_LOG(site, "creating thread (%s)(%d)", worker.name, static_cast<int>(index));
        if (!KIV_HOLDS_AT(site, kiv_thread_create_default(&worker.thread, worker.name, _test_thread_handleMsg,
                                                          &worker) == KIV_OK)) {
            return false;
        }
    }
    return true;
}

bool stop_workers(reporting_worker *workers, call_site site)
{
    for (uint32_t index = 0; index < threads; ++index) {
        reporting_worker &worker = workers[index];
        STRESS_LOG(site, "stopping thread (%s)(%d)", worker.name, static_cast<int>(index));
        const bool stopped = KIV_HOLDS_AT(site, kiv_thread_stop(&worker.thread) == KIV_OK);
        const bool deleted = kiv_thread_delete(&worker.thread) == KIV_OK;
        if (!KIV_HOLDS_AT(site, stopped && deleted)) {
            return false;
        }
    }
    return true;
}

// @return False when a worker was not created or not stopped: some may still run.
bool run_workers(reporting_worker *workers, bool run_forever, call_site site)
{
    const bool created = create_workers(workers, site);
    do { // NOLINT(bugprone-infinite-loop): until the process is ended from outside
        kiv_thread_sleep(run_time_us);
    } while (run_forever);
    return created && stop_workers(workers, site);
}

} // namespace

int _kiv_test_biostress(int argc, char **argv, unsigned testFlags)
{
    std::puts("shalom");
    const bool run_forever = parse_options(argc, argv, (testFlags & KIV_TEST_FLAG_FREE_PLAY) != 0);
    owned_block block(static_cast<char *>(std::calloc(1, file_size)));
    if (!KIV_HOLDS(block != nullptr)) {
        KIV_LOG_ERRR("no memory for the %u bytes of a file: nothing is written\n", file_size);
    }
    buffer = block.get();
    gettimeofday(&g_start_tp, nullptr);
    std::unique_ptr<reporting_worker[]> workers(new (std::nothrow) reporting_worker[most_threads]());
    if (!KIV_HOLDS(pthread_mutex_init(&g_printsMutex, nullptr) == 0 && workers != nullptr)) {
        return 0;
    }
    const call_site site = call_site::here();
    STRESS_LOG(site, "refcount test - start");
    const bool passed = run_workers(workers.get(), run_forever, site);
    if (!passed) { // workers that still run go on using these
        static_cast<void>(workers.release());
        static_cast<void>(block.release());
    }
    STRESS_LOG(site, "refcount test - end");
    pthread_mutex_destroy(&g_printsMutex);
    return passed ? 1 : 0;
}
