#include "command_line.h"

#include <unistd.h>

#include <algorithm>
#include <map>

namespace zol_tool
{

namespace
{

constexpr option global_options[] = {
    {"--json", nullptr, nullptr, "answers in JSON"},
    {"--conf", "-c", "FILE", "the configuration; else Conf/kiv_test.xml, or /etc/kiv/conf.xml"},
    {"--verbose", "-v", nullptr, "shows the log of the library on the standard error output"},
    {"--help", "-h", nullptr, "shows this help"},
    {"--version", nullptr, nullptr, "shows the version"},
};

// The words of the command line, taken apart.
struct command_line {
    std::string group;
    std::string verb;
    words rest; // options and operands
};

// A word that is an option, as "-b", "-b4" or "--bus=4".
bool is_option(std::string_view word)
{
    return word.size() > 1 && word.front() == '-';
}

bool names(std::string_view word, const option &candidate)
{
    return word == candidate.name || (candidate.letter != nullptr && word == candidate.letter);
}

const option *find(std::string_view word, std::span<const option> table)
{
    const auto at =
        std::ranges::find_if(table, [word](const option &candidate) { return names(word, candidate); });
    return at != table.end() ? &*at : nullptr;
}

// The group and the verb are the first two words that are no options.
command_line take_apart(const words &arguments)
{
    command_line line;
    bool is_value = false;
    for (const std::string &word : arguments) {
        const bool is_plain = !is_value && !is_option(word);
        if (is_plain && line.group.empty()) {
            line.group = word;
        } else if (is_plain && line.verb.empty()) {
            line.verb = word;
        } else {
            line.rest.push_back(word);
        }
        const option *const global = is_plain ? nullptr : find(word, global_options);
        is_value = !is_value && global != nullptr && global->value != nullptr;
    }
    return line;
}

// An option's name and the value that stands in the same word.
struct option_word {
    std::string name;
    std::optional<std::string> value;
};

option_word split(const std::string &word)
{
    const std::size_t end = word.starts_with("--") ? word.find('=') : std::min<std::size_t>(2, word.size());
    if (end == std::string::npos || end == word.size()) {
        return {word, std::nullopt};
    }
    return {word.substr(0, end), word.substr(end + (word.starts_with("--") ? 1 : 0))};
}

// The options and the operands of a command.
struct command_words {
    std::map<std::string, std::string> options;
    words operands;
    std::string mistake;
};

// Takes an option, and its value from the next word if it stands there.
// @return "" or the mistake.
std::string take_option(command_words &taken, const command &form, const words &rest, std::size_t &at)
{
    const auto [name, value] = split(rest[at]);
    const option *known = find(name, form.options);
    known = known != nullptr ? known : find(name, global_options);
    if (known == nullptr) {
        return "there is no option " + name;
    }
    if (known->value == nullptr) {
        taken.options[known->name] = "";
        return value ? name + " takes no value" : "";
    }
    if (!value && ++at >= rest.size()) {
        return name + " needs a value: " + known->value;
    }
    taken.options[known->name] = value ? *value : rest[at];
    return "";
}

// Compares the options and operands of a command with those that it takes. @return "" or the mistake.
std::string examine(const command_words &taken, const command &form)
{
    for (const option &each : form.options) {
        if (each.is_needed && !taken.options.contains(each.name)) {
            return std::string(each.name) + " " + each.value + " is needed";
        }
    }
    return std::string_view(form.operands).empty() && !taken.operands.empty()
               ? "there is no operand " + taken.operands.front() + " here"
               : "";
}

command_words take_words(const command &form, const words &rest)
{
    command_words taken;
    bool has_ended = false;
    for (std::size_t i = 0; i < rest.size() && taken.mistake.empty(); ++i) {
        if (!has_ended && rest[i] == "--") {
            has_ended = true;
        } else if (!has_ended && is_option(rest[i])) {
            taken.mistake = take_option(taken, form, rest, i);
        } else {
            taken.operands.push_back(rest[i]);
        }
    }
    return taken;
}

std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(text.size() + 1, width), ' ');
    return text;
}

void print_options(output &out, std::span<const option> table)
{
    for (const option &each : table) {
        const std::string letter = each.letter != nullptr ? std::string(each.letter) + ", " : "    ";
        const std::string value = each.value != nullptr ? std::string(" ") + each.value : "";
        out.line("  " + padded(letter + each.name + value, 24) + each.purpose);
    }
}

// "gpio set PIN=LEVEL..."
std::string short_form_of(const command &each)
{
    const std::string operands = each.operands;
    return std::string(each.group) + " " + each.verb + (operands.empty() ? "" : " " + operands);
}

// "gpio set [OPTION...] PIN=LEVEL...", with the options that are needed.
std::string form_of(const command &each)
{
    const std::string operands = each.operands;
    std::string form = std::string(each.group) + " " + each.verb;
    for (const option &one : each.options) {
        form += one.is_needed ? std::string(" ") + one.letter + " " + one.value : "";
    }
    return form + " [OPTION...]" + (operands.empty() ? "" : " " + operands);
}

void print_command_help(output &out, const command &each)
{
    out.line("usage: zol " + form_of(each) + "\n");
    out.line(std::string(each.purpose) + "\n");
    print_options(out, each.options);
    print_options(out, global_options);
}

// The help of a group, or of all if the group is empty.
void print_help(output &out, std::span<const command> commands, const std::string &group)
{
    out.line("usage: zol [OPTION...] " + (group.empty() ? "GROUP" : group) +
             " VERB [OPTION...] [OPERAND...]\n");
    for (const command &each : commands) {
        if (group.empty() || group == each.group) {
            out.line("  " + padded(short_form_of(each), 42) + each.purpose);
        }
    }
    out.line("");
    print_options(out, global_options);
    out.line("\nExit status: 0 done, 1 the hardware said no, 2 wrong usage, 3 the library did not start.\n"
             "\"zol GROUP VERB --help\" explains the options of a command, zol(1) all of them.");
}

bool asks(const words &rest, const char *name, const char *letter)
{
    const auto end = std::ranges::find(rest, "--");
    return std::any_of(rest.begin(), end, [&](const std::string &word) {
        return word == name || (letter != nullptr && word == letter);
    });
}

// The tree's own configuration in a source tree, the board's on a board.
std::string default_configuration()
{
    constexpr const char *of_the_tree = "Conf/kiv_test.xml";
    return access(of_the_tree, R_OK) == 0 ? of_the_tree : "/etc/kiv/conf.xml";
}

int run(const command &form, const words &rest, output &out)
{
    const command_words taken = take_words(form, rest);
    library_log log(out, taken.options.contains("--verbose"));
    context with = {form, out, log, taken.operands, taken.options, "", false, false};
    with.configuration = with.has("--conf") ? with.value("--conf") : default_configuration();
    with.json = with.has("--json");
    with.verbose = with.has("--verbose");
    const std::string mistake = taken.mistake.empty() ? examine(taken, form) : taken.mistake;
    return mistake.empty() ? form.run(with) : usage_error(with, mistake);
}

bool is_group(std::span<const command> commands, const command_line &line)
{
    return std::ranges::any_of(commands, [&line](const command &each) { return line.group == each.group; });
}

// The words name no command.
int complain(output &out, std::span<const command> commands, const command_line &line)
{
    const auto unknown = std::ranges::find_if(line.rest, [](const std::string &word) {
        return is_option(word) && find(split(word).name, global_options) == nullptr;
    });
    if (line.group.empty()) {
        out.error((unknown != line.rest.end() ? "there is no option " + *unknown : "a command is needed") +
                  "; see zol --help");
    } else if (!is_group(commands, line)) {
        out.error("there is no group " + line.group + "; see zol --help");
    } else {
        out.error((line.verb.empty() ? line.group + " needs a verb"
                                     : "there is no command " + line.group + " " + line.verb) +
                  "; see zol " + line.group + " --help");
    }
    return wrong_usage;
}

// @return True if the words ask for help that exists.
bool help(output &out, std::span<const command> commands, const command_line &line, const command *form)
{
    const bool is_known =
        form != nullptr || (line.verb.empty() && (line.group.empty() || is_group(commands, line)));
    if (!is_known || !asks(line.rest, "--help", "-h")) {
        return false;
    }
    if (form != nullptr) {
        print_command_help(out, *form);
    } else {
        print_help(out, commands, line.group);
    }
    return true;
}

} // namespace

int run_command_line(std::span<const command> commands, const words &arguments, output &out)
{
    const command_line line = take_apart(arguments);
    const auto at = std::ranges::find_if(commands, [&line](const command &each) {
        return line.group == each.group && line.verb == each.verb;
    });
    const command *const form = at != commands.end() ? &*at : nullptr;
    if (help(out, commands, line, form)) {
        return done;
    }
    if (line.group.empty() && asks(line.rest, "--version", nullptr)) {
        out.line("zol " ZOL_TOOL_VERSION);
        return done;
    }
    return form != nullptr ? run(*form, line.rest, out) : complain(out, commands, line);
}

} // namespace zol_tool
