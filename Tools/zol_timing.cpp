// zol_timing: turns timing logs, and the journal of a virtual board, into pictures, waveforms and traces.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "standard_streams.h"
#include "timing_output.h"
#include "timing_trace.h"

namespace
{

using zol_tools::timing_trace;

constexpr char usage_text[] =
    R"(usage: zol_timing [LOG.csv [--start TIME]]... [--journal FILE] [OPTION...]

Turns timing logs into a timing diagram, waveforms or a trace. Several logs are drawn on one axis.
Without an output named, makes diagram and waveforms beside the first log.
  --svg FILE       writes a timing diagram, for any browser
  --vcd FILE       writes waveforms, for GTKWave and PulseView
  --perfetto FILE  writes a trace, for https://ui.perfetto.dev and chrome://tracing
  --journal FILE   adds the pins and buses of a virtual board: the output of
                   kivboard journal --json; - is the standard input
  --from TIME      leaves out what was before; in seconds after the start of the first log
  --to TIME        leaves out what was after
  --start TIME     the start of the log before it, in seconds since 1970; needed to join a log
                   that was copied without its time of modification (cp -p keeps that)
  --title TEXT     the title, else the name of the first log
Exit status: 0 done, 1 a log cannot be read or an output not written, 2 wrong usage.
)";

struct log_argument {
    std::string path;
    std::string start;
};

struct options {
    std::vector<log_argument> logs;
    std::string journal;
    std::string svg;
    std::string vcd;
    std::string perfetto;
    std::string title;
    std::string from;
    std::string to;
    zol_tools::time_window window = {};
};

int usage_error(const std::string &what)
{
    std::fprintf(stderr, "zol_timing: %s; see zol_timing --help\n", what.c_str());
    return 2;
}

int failure(const std::string &what)
{
    std::fprintf(stderr, "zol_timing: %s\n", what.c_str());
    return 1;
}

// @return The place of an option's value, or null.
std::string *value_of(options &with, const std::string &option)
{
    const struct {
        const char *name;
        std::string *value;
    } table[] = {
        {"--svg", &with.svg},         {"--vcd", &with.vcd},
        {"--title", &with.title},     {"--perfetto", &with.perfetto},
        {"--journal", &with.journal}, {"--from", &with.from},
        {"--to", &with.to},           {"--start", with.logs.empty() ? nullptr : &with.logs.back().start}};
    const auto *const found = std::find_if(std::begin(table), std::end(table),
                                           [&option](const auto &row) { return option == row.name; });
    return found != std::end(table) ? found->value : nullptr;
}

// @return "" or the mistake.
std::string parse(const std::vector<std::string> &words, options &with)
{
    for (std::size_t i = 0; i < words.size(); ++i) {
        std::string *const value = value_of(with, words[i]);
        if (value != nullptr && ++i < words.size()) {
            *value = words[i];
        } else if (value != nullptr) {
            return words[i - 1] + " needs a value";
        } else if (words[i] == "--start") {
            return "--start must follow its log";
        } else if (words[i].starts_with("-")) {
            return "what is " + words[i];
        } else {
            with.logs.push_back({words[i], ""});
        }
    }
    return with.logs.empty() && with.journal.empty() ? "a timing log is needed" : "";
}

// @return "" or the mistake.
std::string parse_time_option(const char *name, const std::string &text, std::optional<std::int64_t> &time_us)
{
    time_us = text.empty() ? std::nullopt : zol_tools::parse_time(text);
    return text.empty() || time_us ? "" : std::string(name) + " " + text + " is no time in seconds, like 1.5";
}

// @return "" or the mistake.
std::string parse_times(options &with)
{
    std::optional<std::int64_t> start_us;
    std::string mistake = parse_time_option("--from", with.from, with.window.from_us);
    mistake += mistake.empty() ? parse_time_option("--to", with.to, with.window.to_us) : "";
    for (const log_argument &log : with.logs) {
        mistake += mistake.empty() ? parse_time_option("--start", log.start, start_us) : "";
    }
    if (mistake.empty() && with.window.from_us && with.window.to_us &&
        *with.window.from_us >= *with.window.to_us) {
        mistake = "--to " + with.to + " is not after --from " + with.from;
    }
    return mistake;
}

bool is_joined(const options &with)
{
    return with.logs.size() + (with.journal.empty() ? 0 : 1) > 1;
}

std::optional<timing_trace> read_log(const log_argument &log, bool is_joined)
{
    std::string error;
    std::optional<timing_trace> trace = zol_tools::read_timing_csv(log.path, error);
    if (trace && !log.start.empty()) {
        trace->start_us = zol_tools::parse_time(log.start);
    } else if (trace) {
        error = zol_tools::find_start(log.path, *trace);
        error = error.empty() ? "" : log.path + ": " + error;
    }
    if (!trace || (is_joined && !trace->start_us)) {
        static_cast<void>(failure(error));
        return std::nullopt;
    }
    return trace;
}

// @return Nothing if one of them cannot be read.
std::vector<timing_trace> read_all(const options &with)
{
    std::vector<timing_trace> traces;
    for (const log_argument &log : with.logs) {
        std::optional<timing_trace> trace = read_log(log, is_joined(with));
        if (!trace) {
            return {};
        }
        traces.push_back(std::move(*trace));
    }
    if (!with.journal.empty()) {
        std::string error;
        std::optional<timing_trace> journal = zol_tools::read_journal(with.journal, error);
        if (!journal) {
            static_cast<void>(failure(error));
            return {};
        }
        traces.push_back(std::move(*journal));
    }
    return traces;
}

// Logs of the same name in different directories bear their paths.
void tell_apart(const options &with, std::vector<timing_trace> &traces)
{
    for (std::size_t i = 0; i < with.logs.size(); ++i) {
        const std::string stem = std::filesystem::path(with.logs[i].path).stem();
        const auto alike =
            std::count_if(with.logs.begin(), with.logs.end(), [&stem](const log_argument &each) {
                return std::filesystem::path(each.path).stem() == stem;
            });
        traces[i].name = alike > 1 ? with.logs[i].path : stem;
    }
}

struct output {
    const std::string *path;
    void (*write)(const zol_tools::timeline &all, const std::string &title, zol_tools::output_file &file);
};

bool is_same_file(const std::string &a, const std::string &b)
{
    std::error_code error;
    return std::filesystem::is_regular_file(a, error) && std::filesystem::equivalent(a, b, error);
}

// @return "" or the mistake.
std::string name_outputs(options &with)
{
    if (!with.svg.empty() || !with.vcd.empty() || !with.perfetto.empty()) {
        return "";
    }
    const std::string first = with.logs.empty() ? with.journal : with.logs[0].path;
    with.svg = std::filesystem::path(first).replace_extension(".svg");
    with.vcd = std::filesystem::path(first).replace_extension(".vcd");
    return first == "-" ? "an output must be named" : "";
}

// @return "" or the mistake.
std::string check_outputs(const options &with)
{
    std::vector<std::string> inputs = {with.journal};
    std::ranges::transform(with.logs, std::back_inserter(inputs), &log_argument::path);
    for (const std::string &output : {with.svg, with.vcd, with.perfetto}) {
        for (const std::string &input : inputs) {
            if (is_same_file(output, input)) {
                return "the output " + output + " is an input";
            }
        }
    }
    for (const auto &[one, other] :
         {std::pair(&with.svg, &with.vcd), {&with.svg, &with.perfetto}, {&with.vcd, &with.perfetto}}) {
        if (!one->empty() && *one == *other) {
            return "two outputs have the name " + *one;
        }
    }
    return "";
}

int write(const output &output, const zol_tools::timeline &all, const std::string &title)
{
    if (output.path->empty()) {
        return 0;
    }
    zol_tools::output_file file(*output.path, all.count_marks());
    if (!file.has_failed()) {
        output.write(all, title, file);
    }
    const int error = file.close();
    return error == 0 ? 0 : failure("can't write " + *output.path + ": " + std::strerror(error));
}

int convert(const options &with)
{
    std::vector<timing_trace> traces = read_all(with);
    if (traces.empty()) {
        return 1;
    }
    tell_apart(with, traces);
    const std::string title = with.title.empty() ? traces[0].name : with.title;
    const zol_tools::timeline all = zol_tools::join(std::move(traces), with.window);
    int status = 0;
    for (const output &each :
         {output{&with.svg, zol_tools::write_svg}, output{&with.vcd, zol_tools::write_vcd},
          output{&with.perfetto, zol_tools::write_perfetto}}) {
        status = std::max(status, write(each, all, title));
    }
    return status;
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
    std::string mistake = parse(words, with);
    mistake = mistake.empty() ? parse_times(with) : mistake;
    mistake = mistake.empty() ? name_outputs(with) : mistake;
    mistake = mistake.empty() ? check_outputs(with) : mistake;
    return mistake.empty() ? convert(with) : usage_error(mistake);
}

} // namespace

int main(int argc, char **argv)
{
    kiv::keep_standard_descriptors();
    const std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
    return kiv::after_output("zol_timing", run_command_line(words));
}
