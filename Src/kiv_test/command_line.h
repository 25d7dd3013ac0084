// The command line of the test tool. What it says goes to g_params.
#pragma once

#include <cstdint>

#include "kiv_debug/log_as.h"

namespace kiv
{

/// One run of the tool.
struct test_run {
    int argc;
    char **argv;
    unsigned testFlags;     // KIV_TEST_FLAG_... bits; once set they stay
    std::int32_t runStatus; // negative: nothing is started and no test runs
    bool wants_module_help; // "-m <module> ... -h"
};

void set_default_parameters();

/// Parses until the end, or until -m, and leaves optind there. Help ends the process.
void parse_command_line(test_run &run, call_site site);

void log_parameters(call_site site);

/// Prints the help of the tool and ends the process.
[[noreturn]] void _kiv_test_print_help();

} // namespace kiv
