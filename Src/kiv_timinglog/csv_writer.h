// The file of a timing log: rows go to a stream with a large buffer.
#pragma once

#include <sys/time.h>

#include <array>
#include <cstddef>
#include <cstdio>

#include "zol/kiv_timinglog.h"

namespace kiv
{

/// The time between two, field by field with a borrow.
timeval since(const timeval &start, const timeval &stamp) noexcept;

/// The value that a lane shows for a state.
constexpr int32_t t2v(int32_t index, int32_t state) noexcept
{
    return 2 * index + (state == KIV_TL_LOW ? 0 : 1);
}

/// Used by one thread. A failing stream is reported once; what follows is dropped.
///
/// The rows of an event are collected in a block, which end_event() hands to the stream in one call. So the stream is
/// locked once per event, and a flush by exit() writes whole rows.
class csv_writer
{
public:
    csv_writer(FILE *stream, const char *file_name) noexcept : stream_(stream), file_name_(file_name) {}

    /// Each cell of a row ends with a comma.
    void time_cell(const timeval &time) noexcept;
    void lane_cell(int32_t value) noexcept;
    void empty_cells(std::size_t count) noexcept;
    void end_row() noexcept;
    void end_event() noexcept;

    /// Hands what the stream holds to the system, and makes the time of the last row the file's time of modification.
    void flush(const timeval &last_row) noexcept;
    [[nodiscard]] bool is_flushed() const noexcept { return is_flushed_; }

private:
    static constexpr std::size_t block_size = 4096;
    static constexpr std::size_t longest_cell = 48;

    void make_room(std::size_t size) noexcept;
    void fail() noexcept;

    FILE *stream_;
    const char *file_name_;
    std::size_t used_ = 0;
    bool failed_ = false;
    bool is_flushed_ = true;
    std::array<char, block_size> block_;
};

} // namespace kiv
