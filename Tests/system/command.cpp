#include "system/command.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iterator>
#include <sstream>

#include "common/unique_fd.h"

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

[[noreturn]] void become(std::vector<char *> &words, const std::string &directory, int out, int err)
{
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    if (directory.empty() || chdir(directory.c_str()) == 0) {
        execvp(words[0], words.data());
    }
    _exit(127);
}

} // namespace

command_result run_command(const std::vector<std::string> &words, const std::string &directory)
{
    std::vector<std::string> whole = emulator();
    whole.insert(whole.end(), words.begin(), words.end());
    std::vector<char *> arguments;
    for (std::string &word : whole) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const kiv::unique_fd out(memfd_create("out", MFD_CLOEXEC));
    const kiv::unique_fd err(memfd_create("err", MFD_CLOEXEC));
    const pid_t child = fork();
    if (child == 0) {
        become(arguments, directory, out.get(), err.get());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), contents(out), contents(err)};
}

} // namespace zol_test
