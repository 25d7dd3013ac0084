#include "zol/kiv_timinglog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_fd.h"
#include "support/fake_host.h"
#include "support/fault_sweep.h"
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

    kiv_tl_ctx *open_log(const std::string &name)
    {
        kiv_tl_ctx *const log = kiv_tl_init(name.c_str(), map_);
        EXPECT_NE(log, nullptr);
        return log;
    }

    zol_test::scratch_directory scratch_;
    zol_test::fake_host host_{scratch_.path()};
    kiv_tl_map_entry map_[3] = {{5, "rx", 0, {}}, {7, "tx", 0, {}}, {-1, nullptr, 0, {}}};
};

TEST_F(TimingLog, ScriptedRunByteForByte)
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
    host_.set_time(110, 0);
    kiv_tl_deinit(log);
    EXPECT_EQ(csv("run"), "time,rx,tx,delta since last event,\n"
                          "0.000000,0,2,,\n"
                          "1.500000,,2,,\n1.500000,,3,1.500000,\n"
                          "2.000000,,3,,\n2.000000,,3,0.500000,\n2.000000,,3,,\n"
                          "3.000000,0,,,\n3.000000,1,,3.000000,\n3.000000,0,,,\n"
                          "4.000000,,,,\n4.000000,,,,\n"
                          "4.000001,,,,\n4.000001,,,,\n4.000001,,,,\n"
                          "4.900000,0,,,\n4.900000,0,,1.900000,\n"
                          "9.200000,0,3,,\n");
    EXPECT_EQ(map_[1].state, KIV_TL_HIGH);
    EXPECT_EQ(map_[1].last_time.tv_sec, 102);
}

TEST_F(TimingLog, OddClocksAndEvents)
{
    map_[1].event_id = 5;
    host_.set_time(100, 0);
    kiv_tl_ctx *const log = open_log("odd");
    host_.set_time(99, 900'000);
    log_capture capture;
    for (const auto &[id, value] : {std::pair{7, 3}, {7, -1}, {-1, 1}, {-2, 1}, {-3, 1}}) {
        kiv_tl(log, id, value, nullptr);
    }
    EXPECT_EQ(capture.texts("ERRR").size(), 5U);
    EXPECT_TRUE(capture.has("ERRR", "value 3 of event 7 is not 0, 1 or 2, event skipped!"));
    kiv_tl(log, 5, KIV_TL_HIGH, nullptr);
    kiv_tl_deinit(log);
    EXPECT_EQ(csv("odd"), "time,rx,tx,delta since last event,\n0.000000,0,2,,\n"
                          "-1.900000,0,2,,\n-1.900000,1,3,-1.900000,\n-1.900000,0,3,,\n");
}

TEST_F(TimingLog, PreconditionsEndTheProcess)
{
    kiv_tl_ctx closed = {};
    EXPECT_DEATH(kiv_tl_init("x", nullptr), "assertion failed: \\(map\\)");
    EXPECT_DEATH(kiv_tl(nullptr, 5, 1, nullptr), "assertion failed: \\(tlc && tlc->message_thread\\)");
    EXPECT_DEATH(kiv_tl_deinit(&closed), "assertion failed: \\(tlc && tlc->message_thread\\)");
}

TEST_F(TimingLog, AStalledWriterDropsEventsAndLosesNoOthers)
{
    ASSERT_EQ(mkfifo(file("stalled").c_str(), 0600), 0);
    const kiv::unique_fd reader(open(file("stalled").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    kiv_tl_ctx *const log = open_log("stalled");
    log_capture capture;
    int logged = 0;
    while (!capture.has("ERRR", "no free msg buffer, msg skipped!")) {
        for (int i = 0; i < 2000; ++i, ++logged) {
            kiv_tl(log, 7, KIV_TL_HIGH, nullptr);
        }
    }
    const auto dropped = static_cast<long>(capture.count("ERRR", "no free msg buffer, msg skipped!"));
    long lines = 0;
    {
        const std::jthread drain([&] {
            char block[65'536];
            ssize_t got = 0;
            do { // until the log is closed
                got = read(reader.get(), block, sizeof block);
                lines += got > 0 ? std::count(block, block + got, '\n') : 0;
            } while (got != 0);
        });
        kiv_tl_deinit(log);
    }
    EXPECT_EQ(lines, 3 + 2 * (logged - dropped));
    EXPECT_EQ(capture.texts("ERRR").size(), static_cast<std::size_t>(dropped));
}

TEST_F(TimingLog, AFullDiskIsReportedOnceAndHoldsNobodyUp)
{
    for (const int events : {10, 100'000}) { // fails at the close, and in the middle
        std::filesystem::remove(file("full"));
        std::filesystem::create_symlink("/dev/full", file("full"));
        log_capture capture;
        kiv_tl_ctx *const log = open_log("full");
        for (int i = 0; i < events; ++i) {
            kiv_tl(log, 7, KIV_TL_PULSE, nullptr);
        }
        kiv_tl_deinit(log);
        const std::size_t dropped = capture.count("ERRR", "no free msg buffer, msg skipped!");
        const std::size_t lost = capture.texts("ERRR").size() - dropped;
        EXPECT_GE(lost, 1U);
        EXPECT_LE(lost, 2U) << "a block, and the end";
    }
}

TEST_F(TimingLog, FilesThatCannotBeHad)
{
    log_capture log;
    std::filesystem::create_directory(file("directory"));
    EXPECT_EQ(kiv_tl_init("directory", map_), nullptr);
    EXPECT_TRUE(log.has("ERRR", "can't fopen: /var/log/zol/directory.csv"));
    EXPECT_TRUE(log.has("ERRR", "logfile init failed"));
    EXPECT_EQ(kiv_tl_init(nullptr, map_), nullptr);
    {
        const zol_test::fake_host elsewhere(scratch_.path() / "none" / "below");
        EXPECT_EQ(kiv_tl_init("x", map_), nullptr);
        EXPECT_TRUE(log.has("ERRR", "can't create dir /var/log/zol"));
    }
    const zol_test::fake_host made(scratch_.path() / "made");
    if (getuid() == 0) { // the directory is made without the right to enter it
        kiv_tl_deinit(open_log("x"));
    }
}

TEST_F(TimingLog, ManyLogsAndProducersLoseNothing)
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

TEST_F(TimingLog, EveryFailureOnTheWayIsReported)
{
    const zol_test::sweep_result result = zol_test::sweep_faults([this]() -> std::string {
        log_capture capture;
        kiv_tl_ctx *const log = kiv_tl_init("swept", map_);
        if (log != nullptr) {
            kiv_tl(log, 5, KIV_TL_PULSE, "x");
            kiv_tl_deinit(log);
        }
        const bool failed = !zol_test::failed_call().empty();
        return failed == (log == nullptr) && failed != capture.texts("ERRR").empty() ? "" : "unreported";
    });
    EXPECT_EQ(result.complaints, "");
    EXPECT_EQ(result.failures, 6) << "the log, its pool, stat, the file, the writer and its thread";
}

} // namespace
