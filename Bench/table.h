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

/// Counts the allocations of all threads while it exists. They are not counted otherwise: that takes time, of which peers
/// that allocate aligned memory are spared.
class allocation_count
{
public:
    allocation_count() noexcept;
    ~allocation_count();
    allocation_count(const allocation_count &) = delete;
    allocation_count &operator=(const allocation_count &) = delete;

    [[nodiscard]] unsigned long so_far() const noexcept;

private:
    unsigned long before_;
};

} // namespace zol_bench
