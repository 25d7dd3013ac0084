// zol: the services of the library on the command line, one at a time.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "command.h"
#include "interruption.h"
#include "standard_streams.h"

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

constexpr option pulse_options[] = {
    {"--ms", nullptr, "TIME", "length of a pulse, and of the pause between two (10)"},
    {"--count", "-n", "COUNT", "number of pulses (1)"},
    {"--low", nullptr, nullptr, "low pulses: the pin is high otherwise"},
};
constexpr option wait_options[] = {
    {"--edge", "-e", "EDGE", "rising, falling or both (both)"},
    {"--timeout", "-t", "TIME", "such as 2s or 500ms; without it there is no limit"},
    {"--format", "-f", "TEXT", "the line of an interrupt: %p pin, %l level, %t time, %s seconds, %n count"},
};
constexpr option watch_options[] = {
    {"--edge", "-e", "EDGE", "rising, falling or both (both)"},
    {"--count", "-n", "COUNT", "ends after so many interrupts"},
    {"--format", "-f", "TEXT", "the line of an interrupt: %p pin, %l level, %t time, %s seconds, %n count"},
};

constexpr option bus_option = {"--bus", "-b", "BUS", "number of the bus"};
constexpr option device_option = {"--device", "-d", "DEVICE", "address of the device, as 0x18"};
constexpr option register_option = {"--register", "-r", "REG", "register; also 0x20-0x2f and 0x0f,0x20-0x2f"};
constexpr option wide_option = {"--16", nullptr, nullptr, "register addresses have 16 bits"};
constexpr option scan_options[] = {
    bus_option,
    {"--device", "-d", "RANGE", "addresses to look at (0x08-0x77)"},
};
constexpr option get_options[] = {
    bus_option,
    device_option,
    register_option,
    wide_option,
    {"--bytes", "-n", "COUNT", "bytes to read from each register on, in one transfer (1)"},
};
constexpr option set_options[] = {
    bus_option,
    device_option,
    {"--register", "-r", "REG", "register of the first value"},
    wide_option,
    {"--fifo", nullptr, nullptr, "all values go to the same register"},
};
constexpr option dump_options[] = {
    bus_option,
    device_option,
    {"--register", "-r", "REG", "registers, as 0x20-0x2f (0x00-0xff)"},
    wide_option,
    {"--block", nullptr, nullptr, "one transfer for each row, of devices that increment"},
    {"--compare", nullptr, "FILE", "shows the differences to an earlier dump"},
};
constexpr option transfer_options[] = {bus_option, device_option};

constexpr command commands[] = {
    {"gpio", "get", "PIN...", "reads levels", gpio_get, {}},
    {"gpio", "set", "PIN=LEVEL...", "drives pins", gpio_set, {}},
    {"gpio", "pulse", "PIN...", "drives pulses", gpio_pulse, pulse_options},
    {"gpio", "wait", "PIN...", "waits for one interrupt", gpio_wait, wait_options},
    {"gpio", "watch", "PIN...", "prints each interrupt until Ctrl-C", gpio_watch, watch_options},
    {"i2c", "scan", "", "finds the devices of a bus", i2c_scan, scan_options},
    {"i2c", "get", "", "reads registers", i2c_get, get_options},
    {"i2c", "set", "VALUE...", "writes registers", i2c_set, set_options},
    {"i2c", "dump", "", "prints a table of registers", i2c_dump, dump_options},
    {"i2c", "transfer", "[w BYTE...] [r COUNT]...", "sends and receives plain messages", i2c_transfer,
     transfer_options},
    {"token", "list", "", "lists the tokens", token_list, {}},
    {"token", "show", "NAME", "prints a token", token_show, {}},
    {"conf", "check", "[FILE]", "checks a configuration", conf_check, {}},
    {"conf", "show", "", "prints the configuration in force", conf_show, {}},
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

// Takes an option, and its value from the next word if it stands there.
// @return "" or the mistake.
std::string take_option(context &with, const words &rest, std::size_t &at)
{
    const auto [name, value] = split(rest[at]);
    const option *form = find(name, with.form.options);
    form = form != nullptr ? form : find(name, global_options);
    if (form == nullptr) {
        return "there is no option " + name;
    }
    if (form->value == nullptr) {
        with.options[form->name] = "";
        return value ? name + " takes no value" : "";
    }
    if (!value && ++at >= rest.size()) {
        return name + " needs a value: " + form->value;
    }
    with.options[form->name] = value ? *value : rest[at];
    return "";
}

// @return "" or the mistake.
std::string take_words(context &with, const words &rest)
{
    std::string mistake;
    bool has_ended = false;
    for (std::size_t i = 0; i < rest.size() && mistake.empty(); ++i) {
        if (!has_ended && rest[i] == "--") {
            has_ended = true;
        } else if (!has_ended && is_option(rest[i])) {
            mistake = take_option(with, rest, i);
        } else {
            with.operands.push_back(rest[i]);
        }
    }
    if (mistake.empty() && std::string_view(with.form.operands).empty() && !with.operands.empty()) {
        return "there is no operand " + with.operands.front() + " here";
    }
    return mistake;
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

std::string form_of(const command &each, const char *options)
{
    const std::string operands = each.operands;
    return std::string(each.group) + " " + each.verb + options + (operands.empty() ? "" : " " + operands);
}

void print_command_help(output &out, const command &each)
{
    out.line("usage: zol " + form_of(each, " [OPTION...]") + "\n");
    out.line(std::string(each.purpose) + "\n");
    print_options(out, each.options);
    print_options(out, global_options);
}

// The help of a group, or of all if the group is empty.
void print_help(output &out, const std::string &group)
{
    out.line("usage: zol [OPTION...] " + (group.empty() ? "GROUP" : group) +
             " VERB [OPTION...] [OPERAND...]\n");
    for (const command &each : commands) {
        if (group.empty() || group == each.group) {
            out.line("  " + padded(form_of(each, ""), 42) + each.purpose);
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
    const bool is_verbose = asks(rest, "--verbose", "-v");
    library_log log(out, is_verbose);
    context with = {form,      out, log, {}, {}, default_configuration(), asks(rest, "--json", nullptr),
                    is_verbose};
    const std::string mistake = take_words(with, rest);
    if (!mistake.empty()) {
        return usage_error(with, mistake);
    }
    with.configuration = with.value("--conf", with.configuration.c_str());
    return form.run(with);
}

// The words name no command.
int complain(output &out, const command_line &line, bool is_group)
{
    const auto unknown = std::ranges::find_if(line.rest, [](const std::string &word) {
        return is_option(word) && find(split(word).name, global_options) == nullptr;
    });
    if (line.group.empty()) {
        out.error((unknown != line.rest.end() ? "there is no option " + *unknown : "a command is needed") +
                  "; see zol --help");
    } else if (!is_group) {
        out.error("there is no group " + line.group + "; see zol --help");
    } else {
        out.error((line.verb.empty() ? line.group + " needs a verb"
                                     : "there is no command " + line.group + " " + line.verb) +
                  "; see zol " + line.group + " --help");
    }
    return wrong_usage;
}

// @return True if the words ask for help that exists.
bool help(output &out, const command_line &line, bool is_group, const command *form)
{
    if (!asks(line.rest, "--help", "-h") || !(line.group.empty() || is_group)) {
        return false;
    }
    if (form != nullptr) {
        print_command_help(out, *form);
    } else if (line.verb.empty()) {
        print_help(out, line.group);
    }
    return form != nullptr || line.verb.empty();
}

int run_command_line(const words &arguments, output &out)
{
    const command_line line = take_apart(arguments);
    const auto is_of_group = [&line](const command &each) { return line.group == each.group; };
    const bool is_group = std::ranges::any_of(commands, is_of_group);
    const auto *const at = std::ranges::find_if(
        commands, [&](const command &each) { return is_of_group(each) && line.verb == each.verb; });
    const command *const form = at != std::ranges::end(commands) ? at : nullptr;
    if (help(out, line, is_group, form)) {
        return done;
    }
    if (line.group.empty() && asks(line.rest, "--version", nullptr)) {
        out.line("zol " ZOL_TOOL_VERSION);
        return done;
    }
    return form != nullptr ? run(*form, line.rest, out) : complain(out, line, is_group);
}

} // namespace

} // namespace zol_tool

int main(int argc, char **argv)
{
    kiv::keep_standard_descriptors();
    const zol_tool::words arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    int status = 0;
    {
        zol_tool::output out;
        status = out.finish(zol_tool::run_command_line(arguments, out));
    }
    zol_tool::end_by_signal(status);
    return status;
}
