// Calls in a forked child.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

namespace zol_test
{

/// Evaluates a condition in a forked child, which is ended after half a minute. @return True when it holds there.
template <typename Condition>
bool holds_in_child(Condition holds)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        _exit(holds() ? 0 : 1);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

} // namespace zol_test
