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

#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"
#include "zol/kiv_test.h"
#include "zol/kiv_thread.h"

namespace
{

constexpr uint32_t most_threads = 100;
constexpr uint32_t run_time_us = 5'000'000;
constexpr char worker_name[] = "stress";

// The tunables keep their values from one run to the next.
uint32_t threads = 10;
uint32_t files = 10; // highest file index of a worker
uint32_t file_size = 1'048'576;
uint32_t delay = 100; // microseconds

struct block_deleter {
    void operator()(char *block) const noexcept { std::free(block); }
};

using unique_block = std::unique_ptr<char, block_deleter>;

const char *buffer; // what all workers write; set while none of them runs
timeval g_start_tp;
pthread_mutex_t g_printsMutex;

struct stressWorker {
    uint32_t index;
    const char *name;
    char path[52];
    uint32_t fileIndex; // of the file written last
    kiv_thread thread;
    uint32_t msgCount;
};

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
#define STRESS_LOG(text, ...)                                                                                \
    do {                                                                                                     \
        pthread_mutex_lock(&g_printsMutex);                                                                  \
        const stamp at = stamp_now();                                                                        \
        KIV_LOG_PRNT("t(%3d.%-3d) \033[36m" text "\n\033[0m", at.seconds,                                    \
                     at.milliseconds __VA_OPT__(, ) __VA_ARGS__);                                            \
        pthread_mutex_unlock(&g_printsMutex);                                                                \
    } while (0)

struct file_closer {
    void operator()(FILE *file) const noexcept { std::fclose(file); }
};

using unique_file = std::unique_ptr<FILE, file_closer>;

// How many bytes a file holds; of one that holds more than were written, just that it does.
std::size_t count_bytes(FILE *file)
{
    char block[4096];
    std::size_t total = 0;
    for (std::size_t got = 1; got > 0 && total <= file_size;) {
        got = std::fread(block, 1, sizeof block, file);
        total += got;
    }
    return total;
}

void write_and_read_back(const char *path)
{
    const unique_file file(std::fopen(path, "w+e"));
    if (file == nullptr) {
        KIV_LOG_ERRR("Can't open file %s, errno %d\n", path, errno);
        return;
    }
    std::fwrite(buffer, 1, file_size, file.get());
    std::fflush(file.get());
    std::rewind(file.get());
    const std::size_t read = count_bytes(file.get());
    if (read != file_size) {
        KIV_LOG_ERRR("File %s holds %zu bytes, %u were written\n", path, read, file_size);
    }
}

int32_t _test_thread_handleMsg(kiv_thread *thread, kiv_message *)
{
    auto *const worker = static_cast<stressWorker *>(thread->userData);
    ++worker->msgCount;
    worker->fileIndex = worker->fileIndex + 1 > files ? 0 : worker->fileIndex + 1;
    std::snprintf(worker->path, sizeof worker->path, "/media/internal/stress_%d_file_%d.bin",
                  static_cast<int>(worker->index), static_cast<int>(worker->fileIndex));
    if (buffer != nullptr) {
        write_and_read_back(worker->path);
    }
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

// @return Whether to run forever.
bool parse_options(int argc, char **argv, bool run_forever)
{
    int letter = 0;
    do {
        letter = getopt_long(argc, argv, shortOptions, longOptions, nullptr);
        std::printf("param [%2d / %2d] is '%c' (%d)\n", optind, argc, letter, letter);
        apply_option(letter, run_forever);
    } while (letter != -1 && optind != argc);
    return run_forever;
}

bool create_workers(stressWorker *workers)
{
    for (uint32_t index = 0; index < threads; ++index) {
        stressWorker &worker = workers[index];
        worker.index = index;
        worker.name = worker_name;
        STRESS_LOG("creating thread (%s)(%d)", worker.name, static_cast<int>(index));
        const bool created =
            kiv_thread_create_default(&worker.thread, worker.name, _test_thread_handleMsg, &worker) == KIV_OK;
        KIV_ASSERT(created);
        if (!created) {
            return false;
        }
    }
    return true;
}

bool stop_workers(stressWorker *workers)
{
    for (uint32_t index = 0; index < most_threads && index < threads; ++index) {
        stressWorker &worker = workers[index];
        STRESS_LOG("stopping thread (%s)(%d)", worker.name, static_cast<int>(index));
        const bool stopped = kiv_thread_stop(&worker.thread) == KIV_OK;
        KIV_ASSERT(stopped);
        const bool deleted = kiv_thread_delete(&worker.thread) == KIV_OK;
        KIV_ASSERT(stopped && deleted);
        if (!stopped || !deleted) {
            return false;
        }
    }
    return true;
}

// @return Whether every worker was created and stopped; if not, some may still run.
bool run_workers(stressWorker *workers, bool run_forever)
{
    const bool created = create_workers(workers);
    do { // NOLINT(bugprone-infinite-loop): until the process is ended from outside
        kiv_thread_sleep(run_time_us);
    } while (run_forever);
    return created && stop_workers(workers);
}

} // namespace

int _kiv_test_biostress(int argc, char **argv, unsigned testFlags)
{
    std::puts("shalom");
    const bool run_forever = parse_options(argc, argv, (testFlags & KIV_TEST_FLAG_FREE_PLAY) != 0);
    unique_block block(static_cast<char *>(std::calloc(1, file_size)));
    KIV_ASSERT(block != nullptr);
    buffer = block.get();
    gettimeofday(&g_start_tp, nullptr);
    std::unique_ptr<stressWorker[]> workers(new (std::nothrow) stressWorker[most_threads]());
    const bool ready = pthread_mutex_init(&g_printsMutex, nullptr) == 0 && workers != nullptr;
    KIV_ASSERT(ready);
    if (!ready) {
        return 0;
    }
    STRESS_LOG("refcount test - start");
    const bool passed = run_workers(workers.get(), run_forever);
    if (!passed) { // workers that still run go on using these
        static_cast<void>(workers.release());
        static_cast<void>(block.release());
    }
    STRESS_LOG("refcount test - end");
    pthread_mutex_destroy(&g_printsMutex);
    return passed ? 1 : 0;
}
