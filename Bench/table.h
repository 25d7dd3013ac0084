// The table that a run ends with: pairs of benchmarks whose times are compared.
#pragma once

#include <string>
#include <vector>

namespace zol_bench
{

struct row {
    std::string what;
    std::string ours; // name of a benchmark
    std::string peer; // name of the one to compare with
    double goal = 0;  // the highest ratio that is good; 0: just a figure
};

/// Adds to the table. Called while the program starts, beside the registration of the benchmarks.
bool add_rows(std::vector<row> rows);

/// How often the program has allocated memory since it started.
unsigned long allocations();

} // namespace zol_bench
