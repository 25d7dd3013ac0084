#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sstream>

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

// A line bears the name of a public function or of a routine whose name is fixed, never that of a helper. The tests
// themselves log too.
bool is_known_routine(const std::string &name)
{
    constexpr const char *beginnings[] = {"kiv_", "zol_", "spi_",     "_",         "test_",
                                          "main", "stoi", "TestBody", "operator()"};
    return std::any_of(std::begin(beginnings), std::end(beginnings),
                       [&name](const char *each) { return name.starts_with(each); });
}

// An assertion shows a place in the source, so a line with the reason follows it.
bool is_bare_assertion(const std::vector<log_line> &errors, std::size_t index)
{
    // These assert that an operation which they called, and which has given its reason, did not fail.
    constexpr const char *callers[] = {"kiv_thread_stop", "kiv_thread_create_default", "_test_kiv_thread",
                                       "TestBody"};
    const auto is_assertion = [](const log_line &line) { return line.text.starts_with("ASSERT FAILED"); };
    const bool has_reason = index + 1 < errors.size() && !is_assertion(errors[index + 1]);
    return is_assertion(errors[index]) && !has_reason &&
           std::ranges::find(callers, errors[index].function) == std::end(callers);
}

// Flushes no other stream: one may be stalled, and the flush would wait.
void flush()
{
    std::fflush(stdout);
    std::fflush(stderr);
}

} // namespace

std::vector<log_line> parse_log(const std::string &output)
{
    std::vector<log_line> lines;
    std::istringstream texts(output);
    for (std::string text; std::getline(texts, text);) {
        if (log_line line; parse_line(text, line)) {
            lines.push_back(line);
        }
    }
    return lines;
}

log_capture::redirection::redirection(int stream)
{
    flush();
    saved.reset(dup(stream));
    file.reset(memfd_create("log", MFD_CLOEXEC));
    dup2(file.get(), stream);
}

std::string log_capture::redirection::contents() const
{
    flush();
    std::string text;
    char block[4096]; // opens nothing: a test may have used up the descriptors
    for (ssize_t got = 0;
         (got = pread(file.get(), block, sizeof block, static_cast<off_t>(text.size()))) > 0;) {
        text.append(block, static_cast<std::size_t>(got));
    }
    return text;
}

log_capture::~log_capture()
{
    const std::string captured = out();
    dup2(out_.saved.get(), STDOUT_FILENO);
    dup2(err_.saved.get(), STDERR_FILENO);
    std::vector<log_line> errors;
    for (const log_line &line : parse_log(captured)) {
        EXPECT_TRUE(is_known_routine(line.function)) << line.function << " is no public name: " << line.text;
        if (line.level == "ERRR") {
            errors.push_back(line);
        }
    }
    for (std::size_t i = 0; i < errors.size(); ++i) {
        EXPECT_FALSE(is_bare_assertion(errors, i)) << errors[i].function << " gives no reason";
    }
    if (testing::Test::HasFailure()) { // the report of the failure was captured too
        std::fputs(captured.c_str(), stdout);
    }
}

std::size_t log_capture::count(std::string_view level, std::string_view text) const
{
    const std::vector<std::string> lines = texts(level);
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), text));
}

std::vector<std::string> log_capture::texts(std::string_view level) const
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
