// Commands of the tool: their forms, their words, and the common steps.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "library_log.h"
#include "output.h"
#include "zol/zol.hpp"

namespace zol_tool
{

enum exit_status : int {
    done = 0,
    refused = 1, // by the hardware, or there is no such thing
    wrong_usage = 2,
    not_started = 3,
};

using words = std::vector<std::string>;

/// An option of a command: "--ms". A null value makes it a flag.
struct option {
    const char *name;
    const char *letter; // "-b", or null
    const char *value;  // its name in the help
    const char *purpose;
    bool is_needed = false;
};

struct context;

/// A command of the table.
struct command {
    const char *group;
    const char *verb;
    const char *operands; // as the help shows them
    const char *purpose;
    int (*run)(context &with);
    std::span<const option> options;
};

/// The order of one command line, and the means to carry it out.
struct context {
    const command &form;
    output &out;
    library_log &log;
    words operands;                             // the words behind the verb that are no options
    std::map<std::string, std::string> options; // by name, "--ms"; flags with an empty value
    std::string configuration;                  // the file that is read
    bool json = false;
    bool verbose = false;

    [[nodiscard]] bool has(const char *name) const { return options.contains(name); }
    /// The value of an option, or the default.
    [[nodiscard]] std::string value(const char *name, const char *otherwise = "") const;
};

/// Starts the library. Says why if it does not start: the command then ends with not_started.
zol::result<zol::library> start(context &with);

/// Prints the reason that the library logged, or the given one if it logged none. The subject stands before it.
/// @return refused
int refuse(context &with, std::string_view otherwise, const std::string &subject = "");

/// A call of the library went well if it says so and has logged no error: a level that cannot be written is logged only.
/// @return False after a complaint.
template <typename T>
bool went_well(context &with, const zol::result<T> &result, const std::string &subject)
{
    if (result && !with.log.has_errors()) {
        return true;
    }
    refuse(with, (result.cause() ? result.cause() : result.error()).message(), subject);
    return false;
}

/// @return wrong_usage, after a line that says what is wrong.
int usage_error(context &with, const std::string &what);

/// A number of the command line: decimal, or hexadecimal with 0x.
/// @return Nothing unless the whole word is a number up to the limit.
std::optional<std::uint32_t> parse_number(std::string_view word, std::uint32_t most = UINT32_MAX);

// The commands.
int gpio_get(context &with);
int gpio_set(context &with);
int gpio_pulse(context &with);
int gpio_wait(context &with);
int gpio_watch(context &with);
int i2c_scan(context &with);
int i2c_get(context &with);
int i2c_set(context &with);
int i2c_dump(context &with);
int i2c_transfer(context &with);
int token_list(context &with);
int token_show(context &with);
int conf_check(context &with);
int conf_show(context &with);

} // namespace zol_tool
