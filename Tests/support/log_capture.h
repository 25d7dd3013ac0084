// What the library writes while a test looks on.
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
    std::string function; // who logged it
    std::string text;     // the message, without its line end
};

std::vector<log_line> parse_log(std::string_view output);

/// Redirects standard output and standard error into files from its construction to its end.
class log_capture
{
public:
    log_capture();
    ~log_capture();
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    /// Everything written so far.
    std::string out();
    std::string err();

    /// How many lines of a level on standard output hold exactly this text.
    std::size_t count(std::string_view level, std::string_view text);
    bool has(std::string_view level, std::string_view text) { return count(level, text) > 0; }

    /// The lines of a level on standard output, as texts in order.
    std::vector<std::string> texts(std::string_view level);

private:
    struct redirection {
        int target;
        kiv::unique_fd saved;
        kiv::unique_fd file;
    };

    static redirection redirect(int target);
    static void restore(const redirection &stream);
    static std::string contents(const redirection &stream);

    redirection out_;
    redirection err_;
};

} // namespace zol_test
