// The option loop of the test modules: they go on parsing where the driver stopped.
#pragma once

#include <getopt.h>

#include <cstdio>

namespace kiv
{

inline void print_option(int argc, int letter)
{
    std::printf("param [%2d / %2d] is '%c' (%d)\n", optind, argc, letter, letter);
}

/// Shows and applies each option; the end of the options, -1, is applied too unless the last word was taken
/// before.
template <typename Apply, typename Show = void (*)(int argc, int letter)>
void for_each_option(int argc, char **argv, const char *letters, const option *names, Apply apply,
                     Show show = print_option)
{
    int letter = 0;
    do {
        letter = getopt_long(argc, argv, letters, names, nullptr);
        show(argc, letter);
        apply(letter);
    } while (letter != -1 && optind != argc);
}

} // namespace kiv
