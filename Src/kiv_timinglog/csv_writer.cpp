#include "csv_writer.h"

#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/decimal.h"
#include "kiv_debug/log_as.h"

namespace kiv
{
namespace
{

constexpr long us_per_second = 1'000'000;
constexpr char writer_routine[] = "kiv_tl_worker_thread";

// "%ld.%06ld,"
char *write_time(char *at, const timeval &time) noexcept
{
    if (time.tv_sec < 0) { // the clock was set back
        *at++ = '-';
    }
    at = append_decimal(at, static_cast<std::uint32_t>(std::abs(time.tv_sec)));
    *at++ = '.';
    char *const fraction_end = at + 6;
    char *const digits = write_decimal(fraction_end, static_cast<std::uint32_t>(time.tv_usec));
    std::fill(at, digits, '0');
    *fraction_end = ',';
    return fraction_end + 1;
}

} // namespace

timeval since(const timeval &start, const timeval &stamp) noexcept
{
    timeval difference = {stamp.tv_sec - start.tv_sec, stamp.tv_usec - start.tv_usec};
    if (difference.tv_usec < 0) {
        difference.tv_sec -= 1;
        difference.tv_usec += us_per_second;
    }
    return difference;
}

void csv_writer::make_room(std::size_t size) noexcept
{
    if (block_size - used_ < size) {
        hand_over_block(); // a row of very many lanes
    }
}

void csv_writer::hand_over_block() noexcept
{
    const bool is_kept = !is_given_up_ && !is_event_lost_;
    if (is_kept && std::fwrite(block_.data(), 1, used_, stream_) != used_) {
        is_event_lost_ = true; // with the blocks of it that are to come
        fail();
    }
    unflushed_ += used_;
    used_ = 0;
}

// The file of another user keeps the time that the system has set.
void csv_writer::set_file_time() noexcept
{
    const timespec times[] = {{0, UTIME_OMIT}, {last_row_.tv_sec, last_row_.tv_usec * 1000}};
    static_cast<void>(futimens(fileno(stream_), times));
}

// The stream has dropped some bytes and written others. After the first failure of all, the header may be among them.
void csv_writer::fail() noexcept
{
    const int error = errno;
    __fpurge(stream_);
    std::clearerr(stream_);
    is_given_up_ = whole_events_ < 0 || ftruncate(fileno(stream_), whole_events_) != 0 ||
                   fseeko(stream_, whole_events_, SEEK_SET) != 0;
    if (!is_given_up_) {
        last_row_ = last_flushed_row_;
        set_file_time();
    }
    if (!std::exchange(is_failing_, true)) {
        KIV_LOG_AS(writer_routine, ERRR, "can't write %s: errno %d; %s lost\n", file_name_, error,
                   is_given_up_ ? "what follows is" : "the latest rows are");
    }
}

void csv_writer::note_success() noexcept
{
    whole_events_ = ftello(stream_);
    last_flushed_row_ = last_row_;
    set_file_time();
    if (std::exchange(is_failing_, false)) {
        KIV_LOG_AS(writer_routine, PRNT, "%s is written again\n", file_name_);
    }
}

void csv_writer::end_row() noexcept
{
    make_room(1);
    block_[used_++] = '\n';
}

// The stream never gets so much that it would write a part by itself, except of an event of very many lanes.
void csv_writer::end_event(const timeval &stamp) noexcept
{
    hand_over_block();
    const bool is_lost = is_given_up_ || std::exchange(is_event_lost_, false);
    last_row_ = is_lost ? last_row_ : stamp;
    is_flushed_ = is_lost;
    if (unflushed_ > stream_buffer_size - block_size) {
        flush();
    }
}

void csv_writer::flush() noexcept
{
    unflushed_ = 0;
    is_flushed_ = true;
    if (is_given_up_) {
        return;
    }
    if (std::fflush(stream_) != 0) {
        fail();
    } else {
        note_success();
    }
}

void csv_writer::begin_event(const timeval &time) noexcept
{
    time_size_ = static_cast<std::size_t>(write_time(time_.data(), time) - time_.data());
}

void csv_writer::begin_row() noexcept
{
    make_room(longest_cell);
    std::memcpy(&block_[used_], time_.data(), time_.size()); // of a fixed size, so without a call
    used_ += time_size_;
}

void csv_writer::time_cell(const timeval &time) noexcept
{
    make_room(longest_cell);
    used_ = static_cast<std::size_t>(write_time(&block_[used_], time) - block_.data());
}

void csv_writer::lane_cell(int32_t value) noexcept
{
    make_room(longest_cell);
    char *const end = append_decimal(&block_[used_], static_cast<std::uint32_t>(value));
    *end = ',';
    used_ = static_cast<std::size_t>(end + 1 - block_.data());
}

void csv_writer::empty_cells(std::size_t count) noexcept
{
    while (count > 0) {
        make_room(1);
        const std::size_t fitting = std::min(count, block_size - used_);
        std::memset(&block_[used_], ',', fitting);
        used_ += fitting;
        count -= fitting;
    }
}

} // namespace kiv
