// The requests of the bench and the replies to them. A line of words becomes one typed request where it arrives.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "duration.h"
#include "gpio_names.h"
#include "journal.h"

namespace kivboard
{

/// The longest line that the board reads.
inline constexpr std::size_t longest_request = 4096;

struct raise_request {
    std::uint32_t pin;
    std::uint32_t pulses;
};

struct level_request {
    std::uint32_t pin;
    std::optional<bool> level; // nothing: show it
};

struct failure_request {
    std::uint32_t pin;
    bool fails;                              // or works again
    std::optional<gpio_attribute> attribute; // nothing: all of them
    std::optional<gpio_operation> operation; // the same
};

struct register_place {
    std::uint32_t bus;
    std::uint32_t address;
    std::uint32_t index;
};

struct peek_request {
    register_place from;
    std::uint32_t count;
};

struct poke_request {
    register_place to;
    std::vector<std::uint16_t> values;
};

struct journal_request {
    bool follow;
    journal_format format;
};

struct pin_state {
    std::uint32_t pin;
    std::optional<bool> level; // nothing: the interrupt is requested and not masked
};

struct wait_request {
    std::variant<pin_state, i2c_target> until; // or until a transfer to the device
    std::optional<duration> timeout;           // nothing: forever
};

using request = std::variant<raise_request, level_request, failure_request, peek_request, poke_request,
                             journal_request, wait_request>;

struct control_reply {
    bool ok = true;
    std::string text;                          // lines, each ended
    std::optional<journal_format> follow = {}; // the connection stays open, for new entries of the journal
    /// Set when the reply is not known yet. @return True when it is: at the deadline at the latest.
    std::function<bool(control_reply &reply)> later = {};
    std::chrono::steady_clock::time_point deadline = {};

    static control_reply error(const std::string &what) { return {false, what + "\n"}; }
};

class argument_reader;

/// A row of the table of requests: the command line and the board share it.
struct request_form {
    const char *name;
    std::size_t fewest; // arguments
    std::size_t most;
    const char *arguments; // as the usage shows them
    request (*parse)(argument_reader &arguments);
};

/// @return Null when there is no such request.
const request_form *find_request(const std::string &name);

/// @return "" or what is wrong with the number of arguments.
std::string check_count(const request_form &form, std::size_t arguments);

/// @param words         The name of a request and its arguments.
/// @param[out] problem  The reason when there is no request.
std::optional<request> parse_request(const std::vector<std::string> &words, std::string &problem);

} // namespace kivboard
