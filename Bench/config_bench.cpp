// Look-ups in configuration files of 20 and 500 keys, of a key in the middle and of the last one.

#include <benchmark/benchmark.h>
#include <glib.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <pugixml.hpp>
#include <string>

#include "table.h"
#include "zol/kiv_config.h"
#include "zol/kiv_debug.h"

namespace
{

std::string key(long number)
{
    return "setting_number_" + std::to_string(number);
}

std::string xml_file(long keys)
{
    const std::string path = "/tmp/zol-bench-" + std::to_string(keys) + ".xml";
    std::ofstream file(path);
    file << "<board><devices><general>\n";
    for (long i = 0; i < keys; ++i) {
        file << "  <" << key(i) << ">value " << i << "</" << key(i) << ">\n";
    }
    file << "</general></devices></board>\n";
    return path;
}

// The first argument is the number of keys, the second the key that is looked up.
void config_ours(benchmark::State &state)
{
    g_debugLevel = 1;
    const std::string path = xml_file(state.range(0));
    if (kiv_config_init(path.c_str()) != 1) {
        state.SkipWithError("no configuration");
    }
    const std::string wanted = key(state.range(1));
    char value[64];
    for (auto _ : state) {
        benchmark::DoNotOptimize(kiv_config_get_param("general", "", wanted.c_str(), value, sizeof value));
    }
    kiv_config_deinit();
}

void config_pugixml(benchmark::State &state)
{
    pugi::xml_document document;
    if (!document.load_file(xml_file(state.range(0)).c_str())) {
        state.SkipWithError("no document");
    }
    const std::string wanted = key(state.range(1));
    char value[64];
    for (auto _ : state) {
        const pugi::xml_node general = document.child("board").child("devices").child("general");
        std::strncpy(value, general.child(wanted.c_str()).text().get(), sizeof value - 1);
        benchmark::DoNotOptimize(value);
    }
}

void config_gkeyfile(benchmark::State &state)
{
    GKeyFile *const file = g_key_file_new();
    for (long i = 0; i < state.range(0); ++i) {
        g_key_file_set_string(file, "general", key(i).c_str(), ("value " + std::to_string(i)).c_str());
    }
    const std::string wanted = key(state.range(1));
    char value[64];
    for (auto _ : state) {
        char *const text = g_key_file_get_string(file, "general", wanted.c_str(), nullptr);
        std::strncpy(value, text, sizeof value - 1);
        benchmark::DoNotOptimize(value);
        g_free(text);
    }
    g_key_file_free(file);
}

void of_each_size(benchmark::internal::Benchmark *benchmark)
{
    for (const long keys : {20L, 500L}) {
        benchmark->Args({keys, keys / 2})->Args({keys, keys - 1});
    }
}

BENCHMARK(config_ours)->Name("config/ours")->Apply(of_each_size);
BENCHMARK(config_pugixml)->Name("config/pugixml")->Apply(of_each_size);
BENCHMARK(config_gkeyfile)->Name("config/gkeyfile")->Apply(of_each_size);

std::vector<zol_bench::row> config_rows()
{
    std::vector<zol_bench::row> rows;
    for (const std::string keys : {"20/10", "20/19", "500/250", "500/499"}) {
        rows.push_back({"kiv_config_get_param, keys/key " + keys + " : pugixml", "config/ours/" + keys,
                        "config/pugixml/" + keys, 1.2});
        rows.push_back({"kiv_config_get_param, keys/key " + keys + " : GKeyFile", "config/ours/" + keys,
                        "config/gkeyfile/" + keys});
    }
    return rows;
}

const bool added = zol_bench::add_rows(config_rows());

} // namespace
