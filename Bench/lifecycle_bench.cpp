// The start and the stop of the library.

#include <benchmark/benchmark.h>

#include <fstream>

#include "table.h"
#include "zol/zol.h"

namespace
{

void start_and_stop(benchmark::State &state)
{
    constexpr const char *path = "/tmp/zol-bench-start.xml";
    std::ofstream(path) << "<c><devices><general><configName>b</configName><debugLevel>1</debugLevel>"
                           "<systemTokensPath>/</systemTokensPath><i2c_buses_num>4</i2c_buses_num>"
                           "</general></devices></c>";
    g_debugLevel = 1;
    for (auto _ : state) {
        if (zol_init(path) != KIV_OK || zol_deinit() != KIV_OK) {
            state.SkipWithError("the library does not start");
            break;
        }
    }
}

BENCHMARK(start_and_stop)->Name("zol/start_and_stop");

const bool added = zol_bench::add_rows({{"zol_init and zol_deinit", "zol/start_and_stop", ""}});

} // namespace
