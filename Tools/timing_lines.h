// A file that is read line by line.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "common/owner.h"
#include "timing_progress.h"

namespace zol_tools
{

class line_reader
{
public:
    /// @param path  "-" is the standard input.
    explicit line_reader(const std::string &path);

    /// @param[out] line  Without its end; valid until the next call. @return False at the end of the file.
    [[nodiscard]] bool next(std::string_view &line);

    /// Says of the line that it is wrong.
    [[nodiscard]] std::string mistake(const std::string &what) const;

    /// @return "" or the reason why the file could not be read to its end.
    [[nodiscard]] std::string failure() const;

    /// The last line has no end: a program was killed while it wrote.
    [[nodiscard]] bool is_cut() const { return is_cut_; }

private:
    std::string path_;
    kiv::owner<std::FILE, fclose> file_;
    int error_;
    kiv::owner<char, free> buffer_;
    std::size_t capacity_ = 0;
    std::uint64_t number_ = 0;
    std::uint64_t bytes_ = 0;
    bool is_cut_ = false;
    progress progress_;
};

} // namespace zol_tools
