// The files that zol_timing writes. Large ones are written as they are made.
#pragma once

#include <cerrno>
#include <cstdio>
#include <string>
#include <string_view>

#include "common/owner.h"
#include "timing_progress.h"
#include "timing_trace.h"

namespace zol_tools
{

class output_file
{
public:
    /// @param marks  How many of them are to be written, for the progress.
    output_file(const std::string &path, std::size_t marks)
        : file_(std::fopen(path.c_str(), "we")), error_(file_ == nullptr ? errno : 0),
          progress_("writing " + path, marks)
    {
    }

    output_file &operator<<(std::string_view text)
    {
        if (error_ == 0 && std::fwrite(text.data(), 1, text.size(), file_.get()) != text.size()) {
            error_ = errno;
        }
        return *this;
    }

    /// One more mark is written.
    void count_mark() { progress_.at(++marks_); }

    /// @return 0, or the errno value of the first failure. Nothing is to be written after that.
    [[nodiscard]] int close()
    {
        if (file_ != nullptr && std::fclose(file_.release()) != 0 && error_ == 0) {
            error_ = errno;
        }
        return error_;
    }

    [[nodiscard]] bool has_failed() const { return error_ != 0; }

private:
    kiv::owner<std::FILE, fclose> file_;
    int error_;
    std::size_t marks_ = 0;
    progress progress_;
};

/// A self-contained picture: one lane below the other, a time axis, every pulse visible. Marks that are closer than a
/// pixel are drawn together as a filled block.
void write_svg(const timeline &all, const std::string &title, output_file &file);

/// For waveform viewers; a unit of time is a microsecond. A pulse is high for one.
void write_vcd(const timeline &all, const std::string &title, output_file &file);

/// The trace-event format of Perfetto and Chrome: levels as slices, pulses as instants, counts as counters.
void write_perfetto(const timeline &all, const std::string &title, output_file &file);

} // namespace zol_tools
