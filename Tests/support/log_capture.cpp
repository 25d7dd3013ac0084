#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace zol_test
{

namespace
{

bool parse_line(std::string text, log_line &line)
{
    if (text.starts_with("\033[0m")) { // the message before ended with its colour
        text.erase(0, 4);
    }
    char level[5] = "";
    char function[64] = "";
    int end = 0;
    std::sscanf(text.c_str(), "T %*d.%*d \033[%*dm[%4[A-Z12]][   KIV   ]%63s %*d : \033[0m%n", level,
                function, &end);
    if (end == 0) {
        return false;
    }
    line = {level, function, text.substr(static_cast<std::size_t>(end))};
    return true;
}

} // namespace

std::vector<log_line> parse_log(std::string_view output)
{
    std::vector<log_line> lines;
    while (!output.empty()) {
        const std::size_t end = std::min(output.find('\n'), output.size());
        if (log_line line; parse_line(std::string(output.substr(0, end)), line)) {
            lines.push_back(line);
        }
        output.remove_prefix(std::min(end + 1, output.size()));
    }
    return lines;
}

log_capture::redirection log_capture::redirect(int target)
{
    redirection stream{target, kiv::unique_fd(dup(target)), kiv::unique_fd(memfd_create("log", MFD_CLOEXEC))};
    dup2(stream.file.get(), target);
    return stream;
}

void log_capture::restore(const redirection &stream)
{
    dup2(stream.saved.get(), stream.target);
}

std::string log_capture::contents(const redirection &stream)
{
    std::fflush(stdout); // and no other stream: one may be held by a thread that is stuck in writing it
    std::fflush(stderr);
    std::string text;
    char block[4096];
    for (ssize_t got = 0;
         (got = pread(stream.file.get(), block, sizeof block, static_cast<off_t>(text.size()))) > 0;) {
        text.append(block, static_cast<std::size_t>(got));
    }
    return text;
}

log_capture::log_capture()
{
    std::fflush(nullptr);
    out_ = redirect(STDOUT_FILENO);
    err_ = redirect(STDERR_FILENO);
}

log_capture::~log_capture()
{
    const std::string captured = out();
    restore(out_);
    restore(err_);
    if (testing::Test::HasFailure()) { // the report of the failure was captured too
        std::fputs(captured.c_str(), stdout);
    }
}

std::string log_capture::out()
{
    return contents(out_);
}

std::string log_capture::err()
{
    return contents(err_);
}

std::size_t log_capture::count(std::string_view level, std::string_view text)
{
    const std::vector<std::string> lines = texts(level);
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), text));
}

std::vector<std::string> log_capture::texts(std::string_view level)
{
    std::vector<std::string> texts;
    for (const log_line &line : parse_log(out())) {
        if (line.level == level) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

} // namespace zol_test
