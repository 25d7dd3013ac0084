// The log of the library, which writes to the descriptors 1 and 2.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "output.h"

namespace zol_tool
{

/// Takes the descriptors 1 and 2 for the log. Its errors become reasons; with -v all of it goes to the standard error
/// output of the user. A thread reads the log at all times: otherwise the library would wait when the log is long.
class library_log
{
public:
    library_log(output &out, bool is_shown);
    ~library_log();
    library_log(const library_log &) = delete;
    library_log &operator=(const library_log &) = delete;

    /// True if an error was logged that nobody has taken.
    bool has_errors();
    /// The reason in the errors that nobody has taken, as one line; empty if there are none.
    std::string take_reason();
    /// Errors that did not end the call: a chip that the start leaves out. A later reason mentions them.
    void set_aside();
    /// From now on errors are reported when they are logged, instead of kept.
    void report_at_once();
    /// True if an error was reported at once.
    bool has_reported();

private:
    void read_until_stopped();
    void read_all();
    void take_line(const std::string &line);

    output &out_;
    const bool is_shown_;
    int saved_[2];
    int pipe_[2];
    int stop_;
    std::mutex mutex_; // guards the members below, and reading from the pipe
    std::string rest_; // a line that has not ended yet
    std::string last_; // the line before
    std::vector<std::string> errors_;
    std::string aside_;
    bool reports_at_once_ = false;
    bool has_reported_ = false;
    std::thread reader_;
};

} // namespace zol_tool
