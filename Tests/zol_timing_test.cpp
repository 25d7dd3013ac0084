// The inputs of zol_timing: times, logs, the journal, and their common axis.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/scratch.h"
#include "timing_text.h"
#include "timing_trace.h"

using zol_tools::lane;
using zol_tools::mark;
using zol_tools::mark_kind;
using zol_tools::timing_trace;

namespace
{

constexpr const char *signs[] = {"v", "^", "|", "="}; // in the order of mark_kind

// "rx[0] 10^ 20v", "bus 5^(text) 7v", "pending 3=2"
std::string shown(const lane &lane)
{
    std::string text = lane.label + (lane.initial ? *lane.initial ? "[1]" : "[0]" : "");
    for (const mark &each : lane.marks) {
        text += " " + std::to_string(each.time_us) + signs[static_cast<int>(each.kind)];
        text += each.kind == mark_kind::count ? std::to_string(each.detail)
                : each.detail > 0             ? "(" + lane.texts.at(each.detail - 1) + ")"
                                              : "";
    }
    return text;
}

// "FIRST..LAST: LANE; LANE"
std::string shown(const timing_trace &trace)
{
    std::string text = std::to_string(trace.first_us) + ".." + std::to_string(trace.last_us) + ":";
    for (const lane &each : trace.lanes) {
        text += (text.ends_with(':') ? " " : "; ") + shown(each);
    }
    return text;
}

using reader = std::optional<timing_trace> (*)(const std::string &path, std::string &error);

// The trace of a file, or the error without the path, and then the warning.
std::string read(reader read_file, const std::string &content)
{
    const zol_test::scratch_directory scratch;
    const std::string path = scratch.write("input", content);
    const zol_test::log_capture streams;
    std::string text;
    const auto trace = read_file(path, text);
    text = trace ? shown(*trace) : text;
    text += streams.err().empty() ? "" : " + " + streams.err();
    for (std::size_t at = text.find(path); at != std::string::npos; at = text.find(path)) {
        text.erase(at, path.size());
    }
    return text.substr(0, text.find('\n'));
}

std::string event(const std::string &wall, const std::string &device, const std::string &text)
{
    return R"({"wall":)" + wall + R"(,"device":")" + device + R"(","event":")" + text + "\"}\n";
}

} // namespace

TEST(TimingTimes, AreExactAndBounded)
{
    struct {
        const char *text;
        std::optional<std::int64_t> in_row;
        std::optional<std::int64_t> typed;
    } const cases[] = {
        {"1.500000", 1'500'000, 1'500'000},
        {"-1.900000", -100'000, -1'900'000}, // the fraction of a row counts upwards
        {"-0.000001", 1, -1},
        {"9000000000.999999", 9'000'000'000'999'999, 9'000'000'000'999'999},
        {"9000000001.000000", {}, {}},
        {"99999999999999999999.000000", {}, {}},
        {"7", {}, 7'000'000},
        {"0.5", {}, 500'000},
        {"1.0000000", {}, {}},
        {"1.-00001", {}, {}},
        {"--1.000000", {}, {}},
        {"+1.000000", {}, {}},
        {" 1.000000", {}, {}},
        {"1.00000x", {}, {}},
        {".500000", {}, {}},
        {"1.", {}, {}},
        {"-", {}, {}},
        {"", {}, {}},
    };
    for (const auto &[text, in_row, typed] : cases) {
        EXPECT_EQ(zol_tools::parse_row_time(text), in_row) << text;
        EXPECT_EQ(zol_tools::parse_time(text), typed) << text;
    }
    for (const std::int64_t time_us : {0L, -1L, 1'000'000L, -2'500'000L}) {
        EXPECT_EQ(zol_tools::parse_time(zol_tools::show_time(time_us)), time_us);
    }
}

TEST(TimingLog, IsReadRowByRow)
{
    const std::string one = "time,a,delta since last event,\n";
    const std::string two = "time,a,b,delta since last event,\n";
    const std::pair<std::string, const char *> cases[] = {
        {one + "0.000000,0,,\n0.000005,0,,\n0.000005,1,0.000005,\n0.000009,1,,\n", "0..9: a[0] 5^"},
        {one + "0.000000,0,,\r\n0.000005,0,,\r\n0.000005,1,0.000005,\r\n0.000005,0,,\r\n", "0..5: a[0] 5|"},
        {one + "0.000005,1,0.000005,\n-1.999990,0,0.000005,\n", "-10..5: a[0] 5^ -10v"},
        {one + "0.000001,1,0.000001,\r\n0.000003,1,,\r\n0.000003,1,0.000002,\r\n0.000003,1,,\r\n0.000009,1,,"
               "\r\n",
         "0..9: a[0] 1^ 3|"},
        {two + "0.000005,,2,,\n0.000005,,3,0.000005,\n0.000005,,2,,\n0.000007,1,2,,\n",
         "0..7: a[0] 7^; b[0] 5|"},
        // A pulse of a lane that is high, at the end of the log: three rows and the last one.
        {two + "0.000001,,3,0.000001,\n0.000003,,3,,\n0.000003,,3,0.000002,\n0.000003,,3,,\n0.000009,0,3,,\n",
         "0..9: a[0]; b[0] 1^ 3|"},
        // The same level once more: two rows and the last one.
        {two + "0.000001,,3,0.000001,\n0.000003,,3,,\n0.000003,,3,0.000002,\n0.000009,0,3,,\n",
         "0..9: a[0]; b[0] 1^"},
        {"time,a,a,,delta since last event,\n0.000001,1,3,5,0.000001,\n", "0..1: a[0] 1^; a[0] 1^; [0] 1^"},
        {"time,delta since last event,\n0.000001,,\n", "0..1:"},
        {one, "0..0: a[0]"},
        {one + "0.000001,1,0.000001,\n0.000002,0,",
         "0..1: a[0] 1^ + zol_timing: :3: the row is cut short and "
         "left out"},
        {one + "0.000001,1,,x\n", ":2: a row of 4 cells, but the header has 3"},
        {one + "0.000001,1,\n", ":2: a row of 2 cells, but the header has 3"},
        {one + "\n", ":2: a row of 0 cells, but the header has 3"},
        {two + "0.000001,0,1,,\n", R"(:2: "1" is no level of lane b)"},
        {two + "0.000001,0,4,,\n", R"(:2: "4" is no level of lane b)"},
        {one + "0.000001,0x,,\n", R"(:2: "0x" is no level of lane a)"},
        {one + "0.000001,99999999999999999999,,\n", R"(:2: "99999999999999999999" is no level of lane a)"},
        {one + "0.000001,0,1.5,\n", R"(:2: "1.5" is no time)"},
        {one + ",0,,\n", R"(:2: "" is no time)"},
    };
    for (const auto &[content, expected] : cases) {
        EXPECT_EQ(read(zol_tools::read_timing_csv, content), expected) << content;
    }
    for (const char *const header :
         {"\n", ",\n", "time,\n", "time,delta since last event\n", "Time,a,,\n",
          "time,a,delta since last event,x\n", "time,delta since last event,a,\n"}) {
        EXPECT_EQ(read(zol_tools::read_timing_csv, header).substr(0, 25), ":1: this is no timing log")
            << header;
    }
    EXPECT_EQ(read(zol_tools::read_timing_csv, ""), ": is empty");
}

TEST(TimingLog, BeginsBeforeItsTimeOfModification)
{
    const zol_test::scratch_directory scratch;
    const std::string path = scratch.write("log.csv", "");
    const auto start = [&path](std::int64_t s, long ns) {
        const timespec times[] = {{0, UTIME_OMIT}, {static_cast<std::time_t>(s), ns}};
        EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
        timing_trace trace = {.name = "", .lanes = {}, .last_row_us = 1'500'000};
        const std::string problem = zol_tools::find_start(path, trace);
        return trace.start_us ? zol_tools::show_time(*trace.start_us) : problem.substr(0, 20);
    };
    EXPECT_EQ(start(1'000, 123'456'000), "998.623456");
    EXPECT_EQ(start(1'000, 123'456'001), "its start is unknown");
    EXPECT_EQ(start(1'000, 120'000'000), "its start is unknown"); // of a memory card
    if (sizeof(std::time_t) > 4) {
        EXPECT_EQ(start(12'000'000'000, 123'456'000), "its time of modifica");
    }
}

TEST(TimingJournal, BecomesLanes)
{
    const std::pair<std::string, const char *> cases[] = {
        {event("5.000000", "gpio_17", "raise 3: counted, 2 pending") +
             event("5.000002", "gpio_5", "level W[1] ok") + event("5.000004", "gpio_17", "irq R[2] ok") +
             event("5.000005", "gpio_5", "level 0: no interrupt"),
         "0..5: gpio_5 level 2^ 5v; gpio_17 interrupt[0] 0|(raise 3: counted, 2 pending); gpio_17 pending "
         "0=2 4=0"},
        {event("5.000000", "gpio_5", "raised W[1] ok"), "0..0: gpio_5 settings[0] 0|(raised W[1] ok)"},
        // The first transfer began before the first event ended.
        {event("5.000000", "i2c-1", "0x50 W[00] ok, 120 us") +
             event("5.000200", "i2c-1", "0x50 R[2a] ok, 80 us"),
         "-120..200: i2c-1 0x50[0] -120^(0x50 W[00] ok, 120 us) 0v 120^(0x50 R[2a] ok, 80 us) 200v"},
        // Transfers do not overlap, and the clock may be set back.
        {event("5.000000", "i2c-1", "0x50 no answer") + event("5.000010", "i2c-1", "0x50 ok, 20 us") +
             event("4.999990", "i2c-1", "0x50 ok, 5 us"),
         "-15..10: i2c-1 0x50[0] 0|(0x50 no answer) 0^(0x50 ok, 20 us) 10v -15^(0x50 ok, 5 us) -10v"},
        {event("5.000000", "i2c-1", R"(\"\\)"), R"(0..0: i2c-1 "\[0] 0|("\))"},
        {event("5.000000", "i2c-1", "x") + R"({"wall":5.0)",
         "0..0: i2c-1 x[0] 0|(x) + zol_timing: :2: the line is cut short and left out"},
        {event("5.000000", "i2c-1", R"(\n)"), ":1: this is no line of kivboard journal --json"},
        {R"({"wall":5.000000,"device":"a","event":"b",})"
         "\n",
         ":1: this is no line of kivboard journal --json"},
        {event("5.0", "i2c-1", "x"), R"(:1: "5.0" is no time)"},
        {"{\"gone\":7}\n", ": has no events + zol_timing: :1: 7 older events are gone"},
    };
    for (const auto &[content, expected] : cases) {
        EXPECT_EQ(read(zol_tools::read_journal, content), expected) << content;
    }
}

TEST(TimingText, StaysValidUtf8)
{
    const std::pair<const char *, const char *> cases[] = {
        {"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\x7f", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\x7f"},
        {"\x80", "?"},
        {"\xc1\xbf", "??"},
        {"\xe0\x9f\xbf", "???"},
        {"\xf0\x8f\xbf\xbf", "????"},
        {"\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},
        {"\xf4\x90\x80\x80", "????"},
        {"\xf8\x88\x80\x80\x80", "?????"},
        {"\xed\x9f\xbf\xed\xa0\x80\xed\xbf\xbf\xee\x80\x80", "\xed\x9f\xbf??????\xee\x80\x80"},
        {"\xef\xbf\xbd\xef\xbf\xbe\xef\xbf\xbf", "\xef\xbf\xbd??????"},
        {"\xf0\x9f\x98", "???"},
    };
    for (const auto &[text, expected] : cases) {
        std::string wanted;
        for (const char c : std::string(expected)) {
            wanted += c == '?' ? "\xef\xbf\xbd" : std::string(1, c);
        }
        EXPECT_EQ(zol_tools::escape_xml(text), wanted);
        EXPECT_EQ(zol_tools::quote_json(text), "\"" + wanted + "\"");
    }
    EXPECT_EQ(zol_tools::escape_xml("<\">&\t"), "&lt;\"&gt;&amp; ");
    EXPECT_EQ(zol_tools::quote_json("<\"\\\x1f"), R"("<\"\\\u001f")");
}
