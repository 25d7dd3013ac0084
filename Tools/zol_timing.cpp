// zol_timing: turns timing logs into pictures and into waveforms.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "standard_streams.h"
#include "timing_trace.h"

namespace
{

constexpr char usage_text[] =
    "usage: zol_timing FILE.csv [--svg OUT.svg] [--vcd OUT.vcd] [--title TEXT]\n"
    "\n"
    "Turns a timing log into a timing diagram (SVG, for any browser) and into waveforms (VCD, for\n"
    "GTKWave and PulseView). Without an output named, makes both beside FILE.csv.\n"
    "Exit status: 0 done, 1 the log cannot be read or an output not written, 2 wrong usage.\n";

struct options {
    std::string csv;
    std::string svg;
    std::string vcd;
    std::string title;
};

int usage_error(const std::string &what)
{
    std::fprintf(stderr, "zol_timing: %s; see zol_timing --help\n", what.c_str());
    return 2;
}

// @return "" or the mistake.
std::string parse(const std::vector<std::string> &words, options &with)
{
    const struct {
        const char *name;
        std::string *value;
    } table[] = {{"--svg", &with.svg}, {"--vcd", &with.vcd}, {"--title", &with.title}};
    for (std::size_t i = 0; i < words.size(); ++i) {
        std::string *value = nullptr;
        for (const auto &[name, target] : table) {
            value = words[i] == name ? target : value;
        }
        if (value != nullptr && ++i < words.size()) {
            *value = words[i];
        } else if (value != nullptr) {
            return words[i - 1] + " needs a value";
        } else if (words[i].starts_with("-") || !with.csv.empty()) {
            return "what is " + words[i];
        } else {
            with.csv = words[i];
        }
    }
    return with.csv.empty() ? "a timing log is needed" : "";
}

bool write(const std::string &path, const std::string &content)
{
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    if (!file) {
        std::fprintf(stderr, "zol_timing: can't write %s\n", path.c_str());
    }
    return static_cast<bool>(file);
}

int convert(options with)
{
    std::string error;
    const auto trace = zol_tools::read_timing_csv(with.csv, error);
    if (!trace) {
        std::fprintf(stderr, "zol_timing: %s\n", error.c_str());
        return 1;
    }
    const std::filesystem::path csv(with.csv);
    if (with.svg.empty() && with.vcd.empty()) {
        with.svg = std::filesystem::path(csv).replace_extension(".svg");
        with.vcd = std::filesystem::path(csv).replace_extension(".vcd");
    }
    const std::string title = with.title.empty() ? csv.stem().string() : with.title;
    const bool pictured = with.svg.empty() || write(with.svg, zol_tools::to_svg(*trace, title));
    const bool dumped = with.vcd.empty() || write(with.vcd, zol_tools::to_vcd(*trace));
    return pictured && dumped ? 0 : 1;
}

int run_command_line(const std::vector<std::string> &words)
{
    if (!words.empty() && (words[0] == "--help" || words[0] == "-h")) {
        std::fputs(usage_text, stdout);
        return 0;
    }
    if (!words.empty() && words[0] == "--version") {
        std::puts("zol_timing " ZOL_TIMING_VERSION);
        return 0;
    }
    options with;
    const std::string mistake = parse(words, with);
    return mistake.empty() ? convert(with) : usage_error(mistake);
}

} // namespace

int main(int argc, char **argv)
{
    kiv::keep_standard_descriptors();
    const std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
    return kiv::after_output("zol_timing", run_command_line(words));
}
