// The file of a timing log: rows go to a stream with a large buffer.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdio>

#include "zol/kiv_timinglog.h"

namespace kiv
{

constexpr std::size_t stream_buffer_size = 65'536;

/// The time between two, field by field with a borrow.
timeval since(const timeval &start, const timeval &stamp) noexcept;

/// The value that a lane shows for a state.
constexpr int32_t t2v(int32_t index, int32_t state) noexcept
{
    return 2 * index + (state == KIV_TL_LOW ? 0 : 1);
}

/// Used by one thread.
///
/// The rows of an event are collected in a block, which end_event() hands to the stream in one call. So the stream is
/// locked once per event, and a flush by exit() writes whole rows.
///
/// A flush that fails, as on a full disk, is reported once. The file is cut back to its last whole event, so that rows
/// are lost but none is torn, and the log goes on. Where that cannot be done, what follows is dropped.
class csv_writer
{
public:
    csv_writer(FILE *stream, const char *file_name) noexcept : stream_(stream), file_name_(file_name) {}

    /// @param time  Of all its rows, which begin with it.
    void begin_event(const timeval &time) noexcept;
    void begin_row() noexcept;

    /// Each cell of a row ends with a comma.
    void time_cell(const timeval &time) noexcept;
    void lane_cell(int32_t value) noexcept;
    void empty_cells(std::size_t count) noexcept;
    void end_row() noexcept;
    void end_event(const timeval &stamp) noexcept;

    /// Hands what the stream holds, which are whole events, to the system, and makes the time of the last row the
    /// file's time of modification.
    void flush() noexcept;
    [[nodiscard]] bool is_flushed() const noexcept { return is_flushed_; }

private:
    static constexpr std::size_t block_size = 4096;
    static constexpr std::size_t longest_cell = 32;

    void make_room(std::size_t size) noexcept;
    void hand_over_block() noexcept;
    void fail() noexcept;
    void note_success() noexcept;
    void set_file_time() noexcept;

    FILE *stream_;
    const char *file_name_;
    std::size_t used_ = 0;
    std::size_t unflushed_ = 0;
    off_t whole_events_ = -1; // the length of the file at the last flush; unknown before it
    timeval last_row_ = {};
    timeval last_flushed_row_ = {};
    bool is_failing_ = false; // reported, and not reported again
    bool is_given_up_ = false;
    bool is_event_lost_ = false; // the one in the block
    bool is_flushed_ = true;
    std::size_t time_size_ = 0;
    std::array<char, longest_cell> time_ = {};
    std::array<char, block_size> block_;
};

} // namespace kiv
