#include "csv_writer.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "kiv_debug/log_as.h"

namespace kiv
{
namespace
{

constexpr long us_per_second = 1'000'000;

}

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
        end_event(); // a row of very many lanes
    }
}

void csv_writer::fail() noexcept
{
    if (!failed_) {
        failed_ = true;
        KIV_LOG_AS("kiv_tl_worker_thread", ERRR, "can't write %s: errno %d; what follows is lost\n",
                   file_name_, errno);
    }
}

void csv_writer::end_row() noexcept
{
    make_room(1);
    block_[used_++] = '\n';
}

void csv_writer::end_event() noexcept
{
    if (!failed_ && std::fwrite(block_.data(), 1, used_, stream_) != used_) {
        fail();
    }
    used_ = 0;
    is_flushed_ = failed_;
}

void csv_writer::flush(const timeval &last_row) noexcept
{
    if (!failed_ && std::fflush(stream_) != 0) {
        fail();
    }
    if (!failed_) { // the file of another user keeps the time that the system has set
        const timespec times[] = {{0, UTIME_OMIT}, {last_row.tv_sec, last_row.tv_usec * 1000}};
        static_cast<void>(futimens(fileno(stream_), times));
    }
    is_flushed_ = true;
}

// "%ld.%06ld,"
void csv_writer::time_cell(const timeval &time) noexcept
{
    make_room(longest_cell);
    char *at = std::to_chars(&block_[used_], block_.end(), time.tv_sec).ptr;
    *at++ = '.';
    char *const fraction_end = at + 6;
    long left = time.tv_usec;
    for (char *digit = fraction_end; digit != at; left /= 10) {
        *--digit = static_cast<char>('0' + left % 10);
    }
    *fraction_end = ',';
    used_ = static_cast<std::size_t>(fraction_end + 1 - block_.data());
}

void csv_writer::lane_cell(int32_t value) noexcept
{
    make_room(longest_cell);
    char *const end = std::to_chars(&block_[used_], block_.end(), value).ptr;
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
