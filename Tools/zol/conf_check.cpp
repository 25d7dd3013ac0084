#include "conf_check.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>

#include "zol/kiv_config.h"
#include "zol/kiv_status.h"

namespace zol_tool
{
namespace
{

std::string quoted(const std::string &text)
{
    return "\"" + shown(text) + "\"";
}

std::optional<std::int32_t> parse(const std::string &text)
{
    std::int32_t value = 0;
    return kiv_atoi(text.c_str(), &value) == KIV_OK ? std::optional(value) : std::nullopt;
}

// A number ends at the first character that does not fit, and the library is content with that.
bool is_wholly_number(const std::string &text)
{
    const std::size_t begin = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
    const char *const start = text.c_str() + begin;
    const bool is_prefixed = text.starts_with("0x");
    char *end = nullptr;
    static_cast<void>(std::strtoll(start, &end, is_prefixed ? 16 : 10));
    if (end == start) {
        static_cast<void>(std::strtoll(start, &end, 16));
    }
    return std::string_view(end).find_first_not_of(" \t\n\v\f\r") == std::string_view::npos;
}

std::string range_of(const known_key &key)
{
    if (key.most == 1) {
        return "0 or 1";
    }
    const bool is_open = key.most == std::numeric_limits<std::int32_t>::max();
    return is_open ? std::to_string(key.least) + " or more"
                   : std::to_string(key.least) + " to " + std::to_string(key.most);
}

// The library takes any level and any number of buses; it refuses everything else that is out of range.
bool is_taken_anyway(const known_key &key)
{
    return &key == &key_of("debugLevel") || &key == &key_of("i2c_buses_num") ||
           &key == &key_of("i2c_bus_#_debug");
}

void check_number(conf_report &report, const known_key &key, const conf_element &element)
{
    const std::string text = element.value->substr(0, key.longest());
    const std::optional<std::int32_t> value = parse(text);
    if (!value) {
        report.add_at(element.line, weight::error, element.name, quoted(text) + " is not a number",
                      "write " + range_of(key));
        return;
    }
    if (*value < key.least || *value > key.most) {
        report.add_at(element.line, is_taken_anyway(key) ? weight::warning : weight::error, element.name,
                      std::to_string(*value) + " is out of range", "write " + range_of(key));
    }
    if (!is_wholly_number(text)) {
        report.add_at(element.line, weight::warning, element.name,
                      quoted(text) + " is read as " + std::to_string(*value));
    }
}

void check_bias(conf_report &report, const conf_element &element)
{
    constexpr std::array<std::string_view, 3> biases = {"pull-up", "pull-down", "disabled"};
    if (std::find(biases.begin(), biases.end(), *element.value) == biases.end()) {
        report.add_at(element.line, weight::error, element.name, quoted(*element.value) + " is no bias",
                      "write pull-up, pull-down or disabled");
    }
}

void check_length(conf_report &report, const known_key &key, const conf_element &element)
{
    if (element.value->size() > key.longest()) {
        report.add_at(element.line, weight::warning, element.name,
                      "the value has " + std::to_string(element.value->size()) +
                          " characters and is cut at " + std::to_string(key.longest()));
    }
}

bool is_blank(char c)
{
    return std::string_view(" \t\n\v\f\r").find(c) != std::string_view::npos;
}

// The library takes a text as it is; blanks around numbers do no harm.
void check_blanks(conf_report &report, const known_key &key, const conf_element &element)
{
    const std::string &value = *element.value;
    if (key.kind != key_kind::number && !element.begins_with_comment && !value.empty() &&
        (is_blank(value.front()) || is_blank(value.back()))) {
        report.add_at(element.line, weight::warning, element.name,
                      quoted(value) + " begins or ends with blanks, which count");
    }
}

void check_value(conf_report &report, const known_key &key, const conf_element &element)
{
    if (key.kind == key_kind::number) {
        check_number(report, key, element);
    } else if (key.kind == key_kind::bias) {
        check_bias(report, element);
    }
    check_length(report, key, element);
    if (element.begins_with_comment) {
        report.add_at(element.line, weight::warning, element.name, "the comment is taken for the value",
                      "put the comment outside of the element");
    }
    check_blanks(report, key, element);
}

void check_known(conf_report &report, const known_key &key, const conf_element &element)
{
    if (!element.is_real) {
        report.add_at(element.line, weight::warning, element.name,
                      "this is no element, but the library takes it for the key", "remove it");
    }
    if (element.value) {
        check_value(report, key, element);
    } else {
        report.add_at(element.line, weight::error, element.name, "it holds an element and not a value");
    }
}

void report_unknown(conf_report &report, const conf_element &element)
{
    const std::string nearest = nearest_key(element.name);
    if (nearest.empty()) {
        report.add_at(element.line, weight::note, element.name, "the library does not read this key");
    } else {
        report.add_at(element.line, weight::warning, element.name, "the library does not read this key",
                      "did you mean " + nearest + "?");
    }
}

void check_element(conf_report &report, const conf_element &element)
{
    const known_key *const key = match_key(element.name).key;
    if (key == nullptr) {
        if (element.is_real && element.is_in_general && !element.is_group) {
            report_unknown(report, element);
        }
        return;
    }
    const conf_element *const counted = report.file().find(element.name);
    if (counted == &element) {
        check_known(report, *key, element);
    } else if (counted != nullptr) {
        report.add_at(element.line, weight::warning, element.name,
                      "the same key in line " + std::to_string(counted->line) + " counts");
    }
}

// The place of a key that no look-up comes to.
std::string misplaced(const conf_file &file, const std::string &name)
{
    const auto found = std::find_if(file.elements.begin(), file.elements.end(),
                                    [&](const conf_element &each) { return each.name == name; });
    return found != file.elements.end()
               ? "; the one in line " + std::to_string(found->line) + " is outside of <general>"
               : "";
}

void check_required(conf_report &report)
{
    for (const known_key &key : known_keys()) {
        const std::string name = key.name();
        if (key.fallback == nullptr && report.file().find(name) == nullptr) {
            report.add(weight::error, name, "it is missing" + misplaced(report.file(), name),
                       std::string("set it to ") + key.meaning);
        }
    }
}

// @return True when there are keys to check.
bool check_document(conf_report &report)
{
    const conf_file &file = report.file();
    if (!file.problem.empty()) {
        report.add_at(file.problem_line, weight::error, "", file.problem, "correct the XML");
    }
    if (!file.elements.empty() && !file.has_devices) {
        report.add(weight::error, "", "there is no element <devices>", "see kiv_conf(5)");
    } else if (!file.elements.empty() && !file.has_general) {
        report.add(weight::error, "", "there is no element <general> in <devices>", "see kiv_conf(5)");
    }
    return file.has_general;
}

} // namespace

std::string shown(const std::string &value)
{
    std::string text;
    for (const char c : value) {
        const bool is_control = static_cast<unsigned char>(c) < ' ' || c == 0x7f;
        text += c == '\n' ? "\\n" : is_control ? "?" : std::string(1, c);
    }
    return text;
}

void conf_report::add_at(int line, weight how_bad, const std::string &key, std::string what,
                         std::string remedy)
{
    findings_.push_back({how_bad, line, key, std::move(what), std::move(remedy)});
}

void conf_report::add(weight how_bad, const std::string &key, std::string what, std::string remedy)
{
    const conf_element *const element = file_.find(key);
    add_at(element != nullptr ? element->line : 0, how_bad, key, std::move(what), std::move(remedy));
}

std::optional<std::string> conf_report::text(const known_key &key, const std::string &name) const
{
    const conf_element *const element = file_.find(name);
    if (element == nullptr) {
        return key.fallback != nullptr ? std::optional<std::string>(key.fallback) : std::nullopt;
    }
    return element->value ? std::optional(element->value->substr(0, key.longest())) : std::nullopt;
}

std::optional<std::int32_t> conf_report::number(const known_key &key, const std::string &name) const
{
    const std::optional<std::string> written = text(key, name);
    const std::optional<std::int32_t> value = written ? parse(*written) : std::nullopt;
    const bool is_usable = value && (is_taken_anyway(key) || (*value >= key.least && *value <= key.most));
    return is_usable ? value : std::nullopt;
}

void conf_report::sort()
{
    std::ranges::stable_sort(findings_, {},
                             [](const finding &each) { return static_cast<unsigned>(each.line) - 1U; });
}

void check_keys(conf_report &report)
{
    if (check_document(report)) {
        check_required(report);
        for (const conf_element &element : report.file().elements) {
            check_element(report, element);
        }
    }
}

} // namespace zol_tool
