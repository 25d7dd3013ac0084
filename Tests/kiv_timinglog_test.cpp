#include "zol/kiv_timinglog.h"

#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_fd.h"
#include "support/eventually.h"
#include "support/fake_host.h"
#include "support/fault_sweep.h"
#include "support/forked.h"
#include "support/log_capture.h"
#include "support/scratch.h"
#include "support/text.h"
#include "zol/kiv_debug.h"

using zol_test::log_capture;

namespace
{

class TimingLog : public testing::Test
{
protected:
    std::filesystem::path file(const std::string &name) { return scratch_.path() / (name + ".csv"); }

    std::string csv(const std::string &name) { return zol_test::contents_of(file(name)); }

    long rows(const std::string &name) { return std::ranges::count(csv(name), '\n'); }

    // The seconds of the last row.
    long last_time(const std::string &name)
    {
        const std::string text = csv(name);
        return std::atol(text.c_str() + text.rfind('\n', text.size() - 2) + 1);
    }

    kiv_tl_ctx *open_log(const std::string &name)
    {
        kiv_tl_ctx *const log = kiv_tl_init(name.c_str(), map_);
        EXPECT_TRUE(log != nullptr && fcntl(fileno(log->fp), F_GETFD) == FD_CLOEXEC);
        return log;
    }

    zol_test::scratch_directory scratch_;
    zol_test::fake_host host_{scratch_.path()};
    log_capture capture_;
    kiv_tl_map_entry map_[3] = {{5, "rx", 0, {}}, {7, "tx", 0, {}}, {-1, nullptr, 0, {}}};
};

TEST_F(TimingLog, WritesRowsByteForByte)
{
    host_.set_time(100, 800'000);
    kiv_tl_ctx *const log = open_log("run");
    const struct {
        long seconds, microseconds;
        int32_t id, value;
    } events[] = {{102, 300'000, 7, 2}, {102, 800'000, 7, 0}, {103, 800'000, 5, 0},
                  {104, 800'000, 9, 1}, {104, 800'001, 9, 0}, {105, 700'000, 5, 1}};
    for (const auto &[seconds, microseconds, id, value] : events) {
        host_.set_time(seconds, microseconds);
        kiv_tl(log, id, value, "note %d", id);
    }
    host_.set_time(110, 7);
    kiv_tl_deinit(log);
    EXPECT_EQ(csv("run"), "time,rx,tx,delta since last event,\n"
                          "0.000000,0,2,,\n"
                          "1.500000,,2,,\n1.500000,,3,1.500000,\n"
                          "2.000000,,3,,\n2.000000,,3,0.500000,\n2.000000,,3,,\n"
                          "3.000000,0,,,\n3.000000,1,,3.000000,\n3.000000,0,,,\n"
                          "4.000000,,,,\n4.000000,,,,\n"
                          "4.000001,,,,\n4.000001,,,,\n4.000001,,,,\n"
                          "4.900000,0,,,\n4.900000,0,,1.900000,\n"
                          "9.200007,0,3,,\n");
    EXPECT_EQ(map_[1].state, KIV_TL_HIGH);
    EXPECT_EQ(map_[1].last_time.tv_sec, 102);
    struct stat status = {};
    EXPECT_EQ(stat(file("run").c_str(), &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 110);
    EXPECT_EQ(status.st_mtim.tv_nsec, 7000);
}

TEST_F(TimingLog, AcceptsClockStepsAndRejectsInvalidEvents)
{
    map_[1].event_id = 5;
    host_.set_time(100, 0);
    kiv_tl_ctx *const log = open_log("odd");
    host_.set_time(99, 900'000);
    for (const auto &[id, value] :
         {std::pair{7, 3}, {7, -1}, {-1, 1}, {-2, 1}, {-3, 1}, {5, KIV_TL_HIGH + 0}}) {
        kiv_tl(log, id, value, nullptr);
    }
    kiv_tl_deinit(log);
    EXPECT_EQ(capture_.texts("ERRR").size(), 5U);
    EXPECT_TRUE(capture_.has("ERRR", "value 3 of event 7 is not 0, 1 or 2, event skipped!"));
    EXPECT_EQ(csv("odd"), "time,rx,tx,delta since last event,\n0.000000,0,2,,\n"
                          "-1.900000,0,2,,\n-1.900000,1,3,-1.900000,\n-1.900000,0,3,,\n");
}

TEST_F(TimingLog, WritesRowsThatAreLongerThanItsBlock)
{
    constexpr int lanes = 8174; // the second row of an event begins where the second block ends
    std::vector<kiv_tl_map_entry> map;
    std::string levels;
    for (int i = 0; i < lanes; ++i) {
        map.push_back({i, "", 0, {}});
        levels += std::to_string(2 * i) + ",";
    }
    map.push_back(map_[2]);
    host_.set_time(100, 0);
    kiv_tl_ctx *const log = kiv_tl_init("wide", map.data());
    kiv_tl(log, 0, KIV_TL_LOW, nullptr);
    kiv_tl_deinit(log);
    const std::string row = "0.000000,0," + std::string(lanes - 1, ',');
    EXPECT_EQ(csv("wide"), "time," + std::string(lanes, ',') + "delta since last event,\n0.000000," + levels +
                               ",\n" + row + ",\n" + row + "0.000000,\n0.000000," + levels + ",\n");
}

TEST_F(TimingLog, PreconditionsEndTheProcess)
{
    kiv_tl_ctx closed = {};
    EXPECT_DEATH(kiv_tl_init("x", nullptr), "assertion failed: \\(map\\)");
    EXPECT_DEATH(kiv_tl(nullptr, 5, 1, nullptr), "assertion failed: \\(tlc && tlc->message_thread\\)");
    EXPECT_DEATH(kiv_tl_deinit(&closed), "assertion failed: \\(tlc && tlc->message_thread\\)");
}

TEST_F(TimingLog, DropsEventsOnlyWhileTheWriterIsBlocked)
{
    ASSERT_EQ(mkfifo(file("stalled").c_str(), 0600), 0);
    const kiv::unique_fd reader(open(file("stalled").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    kiv_tl_ctx *const log = open_log("stalled");
    const auto dropped = [this] {
        return static_cast<long>(capture_.count("ERRR", "no free msg buffer, msg skipped!"));
    };
    long logged = 0;
    for (int in_pipe = 0; in_pipe < 4096 || dropped() == 0;) {
        for (int i = 0; i < 500; ++i, ++logged) {
            kiv_tl(log, 7, KIV_TL_HIGH, nullptr);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1)); // the writer's turn
        ASSERT_EQ(ioctl(reader.get(), FIONREAD, &in_pipe), 0);
    }
    sigset_t blocked; // this signal would end the process, if the writer took signals
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    kill(getpid(), SIGUSR1);
    int signal = 0;
    EXPECT_EQ(sigwait(&blocked, &signal), 0);
    bool is_closed = false;
    std::thread closer([&] {
        pthread_cancel(pthread_self()); // takes no effect before the log is closed
        kiv_tl_deinit(log);
        is_closed = true;
    });
    long lines = 0;
    char block[65'536];
    for (ssize_t got = -1; got != 0;) { // until the log is closed
        got = read(reader.get(), block, sizeof block);
        lines += got > 0 ? std::count(block, block + got, '\n') : 0;
    }
    closer.join();
    EXPECT_TRUE(is_closed);
    EXPECT_EQ(lines, 3 + 2 * (logged - dropped()));
    EXPECT_EQ(std::ssize(capture_.texts("ERRR")), dropped());
}

TEST_F(TimingLog, ReportsAFullDiskOnce)
{
    std::filesystem::create_symlink("/dev/full", file("full"));
    for (const int events : {10, 100'000}) { // fails at the close, and in the middle
        log_capture capture;
        kiv_tl_ctx *const log = open_log("full");
        for (int i = 0; i < events; ++i) {
            kiv_tl(log, 7, KIV_TL_PULSE, nullptr);
        }
        kiv_tl_deinit(log);
        const std::size_t lost =
            capture.texts("ERRR").size() - capture.count("ERRR", "no free msg buffer, msg skipped!");
        EXPECT_TRUE(lost == 1 || lost == 2) << "a block, and the end";
        EXPECT_TRUE(capture.has("ERRR", "can't write /var/log/zol/full.csv: errno 28; what follows is lost"));
    }
    const std::string label(70'000, 'x'); // more than the stream holds
    map_[0].label = label.c_str();
    EXPECT_EQ(kiv_tl_init("full", map_), nullptr);
    EXPECT_TRUE(capture_.has("ERRR", "fprintf failed"));
}

// A limit on the size of files stands for a disk that is full for a while.
TEST_F(TimingLog, GoesOnWhenTheDiskHasRoomAgain)
{
    g_debugLevel = 2;
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    long now = 100;
    host_.set_time(now, 0);
    kiv_tl_ctx *const log = open_log("room");
    const auto log_until = [&](const auto &is_done) {
        return zol_test::eventually([&] {
            host_.set_time(++now, 0);
            kiv_tl(log, 5, KIV_TL_LOW, nullptr);
            std::this_thread::sleep_for(std::chrono::milliseconds(1)); // the writer keeps up
            return is_done();
        });
    };
    EXPECT_TRUE(log_until([this] { return rows("room") > 100; }));
    const auto size = static_cast<rlim_t>(std::filesystem::file_size(file("room")));
    const rlimit full = {size + 50, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    EXPECT_TRUE(log_until([this] { return !capture_.texts("ERRR").empty(); }));
    struct stat status = {};
    EXPECT_EQ(stat(file("room").c_str(), &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 100 + last_time("room")) << "the time of the last row that is there";
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_TRUE(log_until([this] { return capture_.has("PRNT", "/var/log/zol/room.csv is written again"); }));
    kiv_tl_deinit(log);
    EXPECT_EQ(
        capture_.texts("ERRR"),
        std::vector<std::string>{"can't write /var/log/zol/room.csv: errno 27; the latest rows are lost"});
    std::istringstream lines(csv("room"));
    for (std::string line; std::getline(lines, line);) {
        EXPECT_EQ(std::ranges::count(line, ','), 4) << line;
    }
}

// The stream is too small for an event of so many lanes, and writes a part of it by itself.
TEST_F(TimingLog, LosesAWideEventAsAWhole)
{
    constexpr int lanes = 40'000;
    constexpr rlim_t room = 2 * lanes + 20'000; // for an event, and the end of the next
    std::vector<kiv_tl_map_entry> map(lanes, {5, "", 0, {}});
    for (int lane = 1; lane < lanes; ++lane) {
        map[static_cast<std::size_t>(lane)].event_id = 1000 + lane;
    }
    map.push_back(map_[2]);
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    kiv_tl_ctx *const log = kiv_tl_init("wide", map.data());
    kiv_tl(log, 5, KIV_TL_LOW, nullptr);
    EXPECT_TRUE(zol_test::eventually([&] { return rows("wide") == 4; }));
    const rlimit full = {std::filesystem::file_size(file("wide")) + room, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    kiv_tl(log, 5, KIV_TL_LOW, nullptr); // at once, so that the writer does not rest between them
    kiv_tl(log, 5, KIV_TL_LOW, nullptr);
    EXPECT_TRUE(zol_test::eventually([&] { return !capture_.texts("ERRR").empty(); }));
    EXPECT_TRUE(
        zol_test::eventually([&] { return g_async_queue_length(log->available_msgs_queue) == 1024; }));
    setrlimit(RLIMIT_FSIZE, &limit);
    kiv_tl(log, 5, KIV_TL_LOW, nullptr);
    kiv_tl_deinit(log);
    EXPECT_EQ(rows("wide"), 2 + 3 * 2 + 1);
    std::istringstream lines(csv("wide"));
    for (std::string line; std::getline(lines, line);) {
        EXPECT_EQ(std::ranges::count(line, ','), lanes + 2) << line.substr(0, 100);
    }
}

// An exit() writes the events before it, and an idle log soon shows its own.
TEST_F(TimingLog, WritesItsRowsWithoutADeinit)
{
    constexpr int events = 900; // the pool holds them
    EXPECT_TRUE(zol_test::holds_in_child([this] {
        cpu_set_t core; // on one, and as a batch, the writer does not run while the events come
        CPU_ZERO(&core);
        CPU_SET(sched_getcpu(), &core);
        sched_setaffinity(0, sizeof core, &core);
        const sched_param batch = {};
        sched_setscheduler(0, SCHED_BATCH, &batch);
        kiv_tl_ctx *const log = open_log("exit");
        for (int i = 0; i < events; ++i) {
            kiv_tl(log, 5, KIV_TL_HIGH, nullptr);
        }
        std::exit(0);
        return true;
    }));
    EXPECT_EQ(rows("exit"), 2 + 2 * events);

    kiv_tl_ctx *const log = open_log("open");
    for (long pulses = 1; pulses < 4; ++pulses) {
        kiv_tl(log, 7, KIV_TL_PULSE, nullptr);
        EXPECT_TRUE(zol_test::eventually([&] { return rows("open") == 2 + 3 * pulses; }));
    }
    kiv_tl_deinit(log);
}

TEST_F(TimingLog, IsLeftAloneByAForkedChild)
{
    constexpr int rounds = 10;
    kiv_tl_ctx *const log = open_log("forked");
    for (int round = 0; round < rounds; ++round) {
        kiv_tl(log, 5, KIV_TL_HIGH, nullptr); // its rows most likely wait in the stream
        EXPECT_TRUE(
            zol_test::eventually([&] { return g_async_queue_length(log->available_msgs_queue) == 1024; }));
        g_async_queue_lock(log->available_msgs_queue);
        g_async_queue_lock(log->pending_msgs_queue);
        const auto reports_it = [&] { // and exits, which is to write nothing
            kiv_tl(log, 5, KIV_TL_LOW, nullptr);
            kiv_tl(log, 5, KIV_TL_LOW, nullptr);
            if (round % 2 == 0) {
                kiv_tl_deinit(log);
            }
            const bool is_reported = capture_.texts("ERRR").size() == 1U + static_cast<unsigned>(round);
#if !defined(__SANITIZE_ADDRESS__) // it takes what the parent's other threads own for leaks
            std::exit(is_reported ? 0 : 1);
#endif
            return is_reported;
        };
        EXPECT_TRUE(zol_test::holds_in_child(reports_it));
        g_async_queue_unlock(log->pending_msgs_queue);
        g_async_queue_unlock(log->available_msgs_queue);
    }
    kiv_tl_deinit(log);
    EXPECT_EQ(rows("forked"), 3 + 2 * rounds);
}

TEST_F(TimingLog, ReportsFilesThatItCannotOpen)
{
    std::filesystem::create_directory(file("directory"));
    EXPECT_EQ(kiv_tl_init("directory", map_), nullptr);
    EXPECT_TRUE(capture_.has("ERRR", "can't fopen: /var/log/zol/directory.csv"));
    EXPECT_TRUE(capture_.has("ERRR", "logfile init failed"));
    EXPECT_EQ(kiv_tl_init(nullptr, map_), nullptr);
    map_[0].label = "in\nout";
    kiv_tl_deinit(open_log("label"));
    EXPECT_TRUE(capture_.has(
        "ERRR", "timing log label: the label of lane 0 (event 5) holds a comma, a quote or a line end, "
                "which readers of its file take for something else"));
    {
        const zol_test::fake_host elsewhere(scratch_.path() / "none" / "below");
        EXPECT_EQ(kiv_tl_init("x", map_), nullptr);
        EXPECT_TRUE(capture_.has("ERRR", "can't create dir /var/log/zol"));
    }
    { // it exists only when it is to be made, as when another process is as fast
        std::filesystem::create_symlink(scratch_.path() / "none", scratch_.path() / "link");
        const zol_test::fake_host raced(scratch_.path() / "link");
        EXPECT_EQ(kiv_tl_init("raced", map_), nullptr);
        EXPECT_TRUE(capture_.has("ERRR", "can't fopen: /var/log/zol/raced.csv"));
    }
    const zol_test::fake_host made(scratch_.path() / "made");
    if (getuid() == 0) { // the directory is made without the right to enter it
        kiv_tl_deinit(open_log("x"));
    }
}

TEST_F(TimingLog, LosesNothingWithManyLogsAndProducers)
{
    constexpr int events = 200;
    std::vector<std::vector<kiv_tl_map_entry>> maps(20, {std::begin(map_), std::end(map_)});
    std::vector<kiv_tl_ctx *> logs;
    for (auto &map : maps) {
        logs.push_back(kiv_tl_init(("many" + std::to_string(logs.size())).c_str(), map.data()));
    }
    std::vector<std::jthread> producers(4);
    for (std::jthread &producer : producers) {
        producer = std::jthread([&logs] {
            for (int n = 0; n < events; ++n) {
                for (kiv_tl_ctx *const log : logs) {
                    kiv_tl(log, 5, KIV_TL_HIGH, "%d", n);
                }
            }
        });
    }
    producers.clear(); // joins them
    for (std::size_t i = 0; i < logs.size(); ++i) {
        kiv_tl_deinit(logs[i]);
        EXPECT_EQ(rows("many" + std::to_string(i)), 3 + 4 * events * 2);
    }
}

TEST_F(TimingLog, ReportsEveryFailure)
{
    const int failures = zol_test::handled_failures([this] {
        log_capture capture;
        kiv_tl_ctx *const log = kiv_tl_init("swept", map_);
        if (log != nullptr) {
            kiv_tl(log, 5, KIV_TL_PULSE, "x");
            kiv_tl_deinit(log);
        }
        const bool failed = !zol_test::failed_call().empty();
        return failed == (log == nullptr) && failed != capture.texts("ERRR").empty();
    });
    EXPECT_EQ(failures, 5) << "the log, its pool, stat, the file and the thread";
}

} // namespace
