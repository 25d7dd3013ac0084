#include <algorithm>

#include "timing_trace.h"

namespace zol_tools
{
namespace
{

struct change {
    std::int64_t time_us;
    std::size_t lane;
    bool high;
};

// Short names of printable characters.
std::string code_of(std::size_t lane)
{
    constexpr std::size_t first = '!';
    constexpr std::size_t count = '~' - '!' + 1;
    std::string code;
    do {
        code += static_cast<char>(first + lane % count);
        lane /= count;
    } while (lane > 0);
    return code;
}

// Names in the format hold no blanks.
std::string name_of(const std::string &label)
{
    std::string name = label.empty() ? "lane" : label;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return c <= ' ' || c > '~' || c == '$'; }, '_');
    return name;
}

// Adds the changes of a lane. A pulse, which takes no time in the log, lasts a microsecond.
void add_changes(const timing_trace &trace, std::size_t index, std::vector<change> &changes)
{
    const std::vector<level_at> &levels = trace.lanes[index].levels;
    bool high = false;
    std::int64_t rose_at = trace.first_us - 1;
    for (const level_at &level : levels) {
        if (level.high != high) {
            const bool falls_at_once = !level.high && level.time_us == rose_at;
            changes.push_back({level.time_us - trace.first_us + (falls_at_once ? 1 : 0), index, level.high});
            rose_at = level.high ? level.time_us : rose_at;
            high = level.high;
        }
    }
}

} // namespace

std::string to_vcd(const timing_trace &trace)
{
    std::string vcd = "$timescale 1 us $end\n$scope module timing $end\n";
    std::string initial = "#0\n$dumpvars\n";
    std::vector<change> changes;
    for (std::size_t i = 0; i < trace.lanes.size(); ++i) {
        vcd += "$var wire 1 " + code_of(i) + " " + name_of(trace.lanes[i].label) + " $end\n";
        initial += "0" + code_of(i) + "\n";
        add_changes(trace, i, changes);
    }
    std::stable_sort(changes.begin(), changes.end(),
                     [](const change &a, const change &b) { return a.time_us < b.time_us; });
    vcd += "$upscope $end\n$enddefinitions $end\n" + initial + "$end\n";
    std::int64_t now = 0;
    for (const change &change : changes) {
        if (change.time_us != now) {
            now = change.time_us;
            vcd += "#" + std::to_string(now) + "\n";
        }
        vcd += (change.high ? "1" : "0") + code_of(change.lane) + "\n";
    }
    return vcd + "#" + std::to_string(std::max(now, trace.last_us - trace.first_us) + 1) + "\n";
}

} // namespace zol_tools
