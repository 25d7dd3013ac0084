#include "system/command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iterator>
#include <sstream>

namespace zol_test
{
namespace
{

std::string contents(const kiv::unique_fd &file)
{
    std::string text(static_cast<std::size_t>(lseek(file.get(), 0, SEEK_END)), '\0');
    const ssize_t got = pread(file.get(), text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
}

// The words of $ZOL_EMULATOR.
std::vector<std::string> emulator()
{
    const char *const command = std::getenv("ZOL_EMULATOR");
    std::istringstream words(command != nullptr ? command : "");
    return {std::istream_iterator<std::string>(words), {}};
}

// Starts a program. @param directory  Where; "" for here.
pid_t spawn(const std::vector<std::string> &words, const std::string &directory, int in, int out, int err)
{
    std::vector<std::string> whole = emulator();
    whole.insert(whole.end(), words.begin(), words.end());
    std::vector<char *> arguments;
    for (std::string &word : whole) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const pid_t child = fork();
    if (child != 0) {
        return child;
    }
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    if (directory.empty() || chdir(directory.c_str()) == 0) {
        execvp(arguments[0], arguments.data());
    }
    _exit(127);
}

int status_of(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

command_result run_command(const std::vector<std::string> &words, const std::string &directory)
{
    const kiv::unique_fd out(memfd_create("out", MFD_CLOEXEC));
    const kiv::unique_fd err(memfd_create("err", MFD_CLOEXEC));
    const int status = status_of(spawn(words, directory, STDIN_FILENO, out.get(), err.get()));
    return {status, contents(out), contents(err)};
}

conversation::conversation(const std::vector<std::string> &words)
{
    int in[2] = {-1, -1};
    int out[2] = {-1, -1};
    EXPECT_EQ(pipe2(in, O_CLOEXEC) + pipe2(out, O_CLOEXEC), 0);
    const kiv::unique_fd its_in(in[0]);
    const kiv::unique_fd its_out(out[1]);
    const kiv::unique_fd silence(open("/dev/null", O_WRONLY | O_CLOEXEC));
    to_.reset(in[1]);
    from_.reset(out[0]);
    child_ = spawn(words, "", in[0], out[1], silence.get());
}

conversation::~conversation()
{
    if (child_ > 0) {
        kill(child_, SIGKILL);
        status_of(child_);
    }
}

void conversation::say(const std::string &text) const
{
    EXPECT_EQ(write(to_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

std::string conversation::hear_until(const std::string &text)
{
    constexpr int patience_ms = 30'000;
    std::size_t at = 0;
    while ((at = heard_.find(text)) == std::string::npos) {
        pollfd readable = {from_.get(), POLLIN, 0};
        char block[4096];
        const ssize_t got = poll(&readable, 1, patience_ms) > 0 ? read(from_.get(), block, sizeof block) : -1;
        if (got <= 0) {
            ADD_FAILURE() << "no \"" << text << "\" in: " << heard_;
            return std::exchange(heard_, "");
        }
        heard_.append(block, static_cast<std::size_t>(got));
    }
    const std::string before = heard_.substr(0, at);
    heard_.erase(0, at + text.size());
    return before;
}

command_result conversation::finish()
{
    to_.reset();
    char block[4096];
    for (ssize_t got = 0; (got = read(from_.get(), block, sizeof block)) > 0;) {
        heard_.append(block, static_cast<std::size_t>(got));
    }
    return {status_of(std::exchange(child_, -1)), heard_, ""};
}

} // namespace zol_test
