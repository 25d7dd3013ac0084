// The tool's own test modules.
#pragma once

#include <span>

#include "zol/kiv_test.h"

namespace kiv
{

std::span<const kiv_test_item> builtin_tests() noexcept;

/// Prints the options of a module whose record does not list them.
void print_own_help(const char *name);

/// The modules' own lists.
void print_gpio_test_help();
void print_events_test_help();

} // namespace kiv
