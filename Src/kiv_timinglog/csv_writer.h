// The file of a timing log: rows are put together in a buffer and go to the stream in large blocks.
#pragma once

#include <sys/time.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <span>

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
class csv_writer
{
public:
    csv_writer(FILE *stream, const char *file_name) noexcept : stream_(stream), file_name_(file_name) {}

    /// Each cell of a row ends with a comma.
    void time_cell(const timeval &time) noexcept;
    void lane_cell(int32_t value) noexcept;
    void empty_cells(std::size_t count) noexcept;
    void end_row() noexcept { put('\n'); }

    /// Hands what is buffered to the stream.
    void flush() noexcept;

private:
    static constexpr std::size_t block_size = 65'536;
    static constexpr std::size_t longest_cell = 48;

    void make_room(std::size_t size) noexcept;
    void put(char c) noexcept
    {
        make_room(1);
        block_[used_++] = c;
    }

    FILE *stream_;
    const char *file_name_;
    std::size_t used_ = 0;
    bool failed_ = false;
    std::array<char, block_size> block_;
};

} // namespace kiv
