// The tool's own test modules.
#pragma once

#include <span>

#include "zol/kiv_test.h"

namespace kiv
{

std::span<const kiv_test_item> builtin_tests() noexcept;

} // namespace kiv
