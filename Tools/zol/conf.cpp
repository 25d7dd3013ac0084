// The commands about the configuration.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

#include "command.h"
#include "common/owner.h"
#include "common/unique_fd.h"
#include "conf_check.h"

namespace zol_tool
{
namespace
{

constexpr char chooser[] = "/usr/bin/zol_choose_conf.sh";

// A key that the library reads. Line 0: the file does not set it. No value: it is missing, or holds none.
struct setting {
    std::string key;
    std::optional<std::string> value;
    unsigned line;
};

// The file that the library reads: the script names it if the wanted one does not exist.
std::string file_for(const std::string &wanted)
{
    struct stat status = {};
    char chosen[256] = "";
    if (stat(wanted.c_str(), &status) == 0 || errno != ENOENT || access(chooser, X_OK) != 0) {
        return wanted;
    }
    const kiv::owner<FILE, pclose> names(popen(chooser, "re"));
    return names != nullptr && std::fscanf(names.get(), "%255s", chosen) == 1 ? chosen : wanted;
}

void add_setting(std::vector<setting> &settings, const conf_report &report, const known_key &key,
                 const std::string &name)
{
    const conf_element *const element = report.file().find(name);
    settings.push_back(
        {name, report.text(key, name), element != nullptr ? static_cast<unsigned>(element->line) : 0});
}

// The numbers of the buses, chips or pins for which the library reads a key, or the file sets it.
std::set<int> numbers_of(const conf_report &report, const known_key &key)
{
    std::set<int> numbers;
    for (int i = 0; i < numbers_set_up(report, key); ++i) {
        numbers.insert(i);
    }
    for (const conf_element &element : report.file().elements) {
        if (match_key(element.name).key == &key && report.file().find(element.name) != nullptr) {
            numbers.insert(match_key(element.name).number);
        }
    }
    return numbers;
}

// In the order of the file; at last those that it does not set.
std::vector<setting> settings_of(const conf_report &report)
{
    std::vector<setting> settings;
    for (const known_key &key : known_keys()) {
        if (!key.is_numbered()) {
            add_setting(settings, report, key, key.name());
        } else {
            for (const int number : numbers_of(report, key)) {
                add_setting(settings, report, key, key.name(std::to_string(number)));
            }
        }
    }
    std::ranges::stable_sort(settings, {}, [](const setting &each) { return each.line - 1U; });
    return settings;
}

constexpr struct {
    const char *name;
    std::optional<colour> shade;
} weights[] = {{"error", colour::red}, {"warning", colour::yellow}, {"note", std::nullopt}};

const auto &entry_of(weight how_bad)
{
    return weights[static_cast<std::size_t>(how_bad)];
}

std::ptrdiff_t count(const conf_report &report, weight how_bad)
{
    return std::ranges::count(report.findings(), how_bad, &finding::how_bad);
}

// "FILE:LINE: error: KEY: WHAT; REMEDY", as compilers do: editors jump to such lines.
std::string text_of(const output &out, const std::string &path, const finding &each)
{
    const auto &[name, shade] = entry_of(each.how_bad);
    return path + ":" + (each.line > 0 ? std::to_string(each.line) + ":" : "") + " " +
           (shade ? out.coloured(*shade, name) : name) + ": " + (each.key.empty() ? "" : each.key + ": ") +
           each.what + (each.remedy.empty() ? "" : "; " + each.remedy);
}

std::string counted(std::ptrdiff_t number, const char *name)
{
    return std::to_string(number) + " " + name + (number == 1 ? "" : "s");
}

std::string verdict(const conf_report &report, bool starts)
{
    return std::string(starts ? "the library starts" : "the library does not start") + ": " +
           counted(count(report, weight::error), "error") + ", " +
           counted(count(report, weight::warning), "warning");
}

std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

std::string text_of(const setting &each)
{
    return " " + (each.value ? shown(*each.value) : "(none)") +
           (each.line == 0 && each.value ? " (default)" : "");
}

void print_report(output &out, const conf_report &report, bool starts)
{
    const std::string &path = report.file().path;
    for (const setting &each : report.file().has_general ? settings_of(report) : std::vector<setting>()) {
        const std::string line = each.line > 0 ? std::to_string(each.line) : "-";
        out.line(std::string(5 - std::min<std::size_t>(5, line.size()), ' ') + line + "  " +
                 padded(each.key, 20) + text_of(each));
    }
    for (const finding &each : report.findings()) {
        out.line(text_of(out, path, each));
    }
    out.line(path + ": " + verdict(report, starts));
}

json as_json(const setting &each)
{
    std::vector<json::member> members = {{"key", each.key}};
    if (each.value) {
        members.emplace_back("value", *each.value);
    }
    members.emplace_back("default", each.line == 0);
    if (each.line > 0) {
        members.emplace_back("line", each.line);
    }
    return json::object(members);
}

json as_json(const finding &each)
{
    return json::object({{"severity", entry_of(each.how_bad).name},
                         {"line", each.line},
                         {"key", each.key},
                         {"what", each.what},
                         {"remedy", each.remedy}});
}

template <typename T>
json list_of(const std::vector<T> &values)
{
    std::vector<json> list;
    list.reserve(values.size());
    for (const T &each : values) {
        list.push_back(as_json(each));
    }
    return {list};
}

json as_json(const conf_report &report, bool starts)
{
    return json::object(
        {{"file", report.file().path},
         {"starts", starts},
         {"keys", list_of(report.file().has_general ? settings_of(report) : std::vector<setting>())},
         {"findings", list_of(report.findings())}});
}

// Starts and stops the library. A reason that no check has found becomes a finding.
bool try_start(context &with, conf_report &report)
{
    const bool starts = static_cast<bool>(zol::library::start(report.file().path.c_str()));
    const std::string reason = with.log.take_reason();
    if (!reason.empty() && count(report, weight::error) == 0) {
        report.add(weight::error, "", reason);
    }
    return starts;
}

// @return 0, or the error because of which the file is not read.
int file_error(const std::string &path)
{
    const kiv::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status = {};
    if (!file.is_open() || fstat(file.get(), &status) != 0) {
        return errno;
    }
    return S_ISREG(status.st_mode) ? 0 : S_ISDIR(status.st_mode) ? EISDIR : ESPIPE;
}

// @return True when the file can be read.
bool check_file(conf_report &report)
{
    const std::string &path = report.file().path;
    const int error = file_error(path);
    if (error != 0) {
        report.add(weight::error, "", error == ESPIPE ? "it can be read only once" : std::strerror(error),
                   error == ENOENT   ? "kiv_conf(5) has an example"
                   : error == EACCES ? "sudo chmod a+r " + path
                                     : "name a regular file");
    }
    return error == 0;
}

// Checks the file, and then starts the library with it. @return True when it starts.
bool check_all(context &with, conf_report &report, const std::string &wanted)
{
    if (report.file().path != wanted) {
        report.add(weight::note, "", wanted + " does not exist, " + chooser + " names this one");
    }
    if (!check_file(report)) {
        return false;
    }
    check_keys(report);
    if (report.file().has_general) {
        check_tokens(report);
        check_buses(report);
        check_chips(report);
    }
    return try_start(with, report);
}

// The text of a key in the started library, or "" as long as there is none.
std::string text_in_force(const std::string &key)
{
    char buffer[64];
    return std::string(zol::setting("general", key.c_str(), std::span(buffer)).value_or(""));
}

// A number that cannot be read leaves the fallback in force.
setting in_force(setting each)
{
    const known_key &key = *match_key(each.key).key;
    if (each.line > 0 && key.kind == key_kind::number) {
        const auto number = zol::setting("general", each.key.c_str());
        each.line = number ? each.line : 0;
        each.value = number ? std::to_string(*number) : key.fallback;
    } else if (each.line > 0) {
        each.value = text_in_force(each.key).substr(0, key.longest());
    }
    return each;
}

} // namespace

int conf_check(context &with)
{
    if (with.operands.size() > 1) {
        return usage_error(with, "one file at a time");
    }
    const std::string wanted = with.operands.empty() ? with.configuration : with.operands.front();
    const conf_file file = read_conf_file(file_for(wanted));
    conf_report report(file);
    const bool starts = check_all(with, report, wanted);
    report.sort();
    if (with.json) {
        with.out.answer(as_json(report, starts));
    } else {
        print_report(with.out, report, starts);
    }
    return !starts ? not_started : count(report, weight::error) > 0 ? refused : done;
}

int conf_show(context &with)
{
    const auto library = start(with);
    if (!library) {
        return not_started;
    }
    const conf_file file = read_conf_file(file_for(with.configuration));
    std::vector<setting> settings = settings_of(conf_report(file));
    std::ranges::transform(settings, settings.begin(), in_force);
    if (with.json) {
        with.out.answer(json::object({{"file", file.path}, {"keys", list_of(settings)}}));
        return done;
    }
    for (const setting &each : settings) {
        with.out.line(padded(each.key, 20) + text_of(each));
    }
    return done;
}

} // namespace zol_tool
