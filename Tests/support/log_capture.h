// Captures the output of the library.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"

namespace zol_test
{

/// One line of the log, taken apart.
struct log_line {
    std::string level;    // "ERRR", "PRNT", ...
    std::string function; // the name that it bears
    std::string text;     // the message, without its line end
};

std::vector<log_line> parse_log(const std::string &output);

/// Redirects standard output and standard error into files from its construction to its end.
class log_capture
{
public:
    log_capture() = default;
    ~log_capture();
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    /// Everything written so far.
    [[nodiscard]] std::string out() const { return out_.contents(); }
    [[nodiscard]] std::string err() const { return err_.contents(); }

    /// Counts the lines of a level on standard output that hold exactly this text.
    [[nodiscard]] std::size_t count(std::string_view level, std::string_view text) const;
    [[nodiscard]] bool has(std::string_view level, std::string_view text) const
    {
        return count(level, text) > 0;
    }

    /// The lines of a level on standard output, as texts in order.
    [[nodiscard]] std::vector<std::string> texts(std::string_view level) const;

private:
    struct redirection {
        explicit redirection(int stream);
        [[nodiscard]] std::string contents() const;

        kiv::unique_fd saved;
        kiv::unique_fd file;
    };

    redirection out_{1};
    redirection err_{2};
};

} // namespace zol_test
