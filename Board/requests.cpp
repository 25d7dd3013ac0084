#include "requests.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <limits>

#include "gpio_pin.h"
#include "number.h"

namespace kivboard
{
namespace
{

constexpr std::uint32_t highest_number = std::numeric_limits<std::uint32_t>::max();

struct number_kind {
    const char *name;
    std::uint32_t lowest;
    std::uint32_t highest;
    const char *range; // in words
};

constexpr number_kind plain_number = {"number", 0, highest_number, "decimal, or hexadecimal with 0x"};
constexpr number_kind pulse_count = {"count", 1, gpio_pin::highest_count, "1 to 2147483647"};
constexpr number_kind pin_level = {"level", 0, 1, "0 or 1"};
constexpr number_kind register_value = {"value of a register", 0, 0xffff, "0 to 65535, or 0 to 255"};
constexpr number_kind device_address = {"address", 0, 0x7f, "0 to 0x7f"};

// The words of a request at their places; null for an argument.
using pattern = std::array<const char *, 4>;

} // namespace

// Reads the arguments of one request, and keeps the first mistake that it meets.
class argument_reader
{
public:
    explicit argument_reader(std::vector<std::string> words) : words_(std::move(words)) {}

    [[nodiscard]] const std::string &problem() const { return problem_; }

    [[nodiscard]] bool has(std::size_t at) const { return at < count(); }
    [[nodiscard]] std::size_t count() const { return words_.size() - 1; }
    [[nodiscard]] const std::string &text(std::size_t at) const { return words_[at + 1]; }

    std::uint32_t number(std::size_t at, const number_kind &kind = plain_number)
    {
        const std::optional<std::uint32_t> value = parse_number(text(at));
        if (!value || *value < kind.lowest || *value > kind.highest) {
            complain(text(at) + " is no " + kind.name + "; use " + kind.range);
        }
        return value.value_or(0);
    }

    // Nothing when there is no such argument.
    template <typename enumeration, std::size_t size>
    std::optional<enumeration> name(std::size_t at, const char *kind, const std::string_view (&names)[size])
    {
        const std::optional<enumeration> found =
            has(at) ? find_name<enumeration>(names, text(at)) : std::nullopt;
        if (has(at) && !found) {
            complain(text(at) + " is no " + kind + "; use " + join_names(names));
        }
        return found;
    }

    [[nodiscard]] bool matches(const pattern &pattern, std::size_t size) const
    {
        bool fits = count() == size;
        for (std::size_t i = 0; fits && i < size; ++i) {
            fits = pattern[i] == nullptr || text(i) == pattern[i];
        }
        return fits;
    }

    // Removes a timeout and its name, which may stand anywhere. Nothing when there is none.
    std::optional<duration> take_timeout()
    {
        const auto found = std::find_if(words_.begin() + 1, words_.end(), [](const std::string &word) {
            return word == "--timeout" || word == "within";
        });
        if (found == words_.end()) {
            return std::nullopt;
        }
        const std::string value = found + 1 != words_.end() ? found[1] : "";
        const std::optional<duration> timeout = parse_duration(value);
        if (!timeout) {
            complain((value.empty() ? "nothing" : value) + " is no time; use " + duration_range);
        }
        words_.erase(found, found + (found + 1 != words_.end() ? 2 : 1));
        return timeout;
    }

    void complain(const std::string &what) { problem_ = problem_.empty() ? what : problem_; }

private:
    std::vector<std::string> words_; // the name of the request, and its arguments
    std::string problem_;
};

namespace
{

request parse_raise(argument_reader &arguments)
{
    return raise_request{arguments.number(0), arguments.has(1) ? arguments.number(1, pulse_count) : 1};
}

request parse_level(argument_reader &arguments)
{
    level_request parsed{arguments.number(0), std::nullopt};
    if (arguments.has(1)) {
        parsed.level = arguments.number(1, pin_level) != 0;
    }
    return parsed;
}

template <bool fails>
request parse_failure(argument_reader &arguments)
{
    return failure_request{arguments.number(0), fails,
                           arguments.name<gpio_attribute>(1, "node", gpio_attribute_names),
                           arguments.name<gpio_operation>(2, "operation", gpio_operation_names)};
}

register_place parse_place(argument_reader &arguments)
{
    return {arguments.number(0), arguments.number(1), arguments.number(2)};
}

request parse_peek(argument_reader &arguments)
{
    return peek_request{parse_place(arguments), arguments.has(3) ? arguments.number(3) : 1};
}

request parse_poke(argument_reader &arguments)
{
    poke_request parsed{parse_place(arguments), {}};
    for (std::size_t i = 3; arguments.has(i); ++i) {
        parsed.values.push_back(static_cast<std::uint16_t>(arguments.number(i, register_value)));
    }
    return parsed;
}

request parse_journal(argument_reader &arguments)
{
    journal_request parsed{false, journal_format::text};
    for (std::size_t i = 0; arguments.has(i); ++i) {
        if (arguments.text(i) == "--follow") {
            parsed.follow = true;
        } else if (arguments.text(i) == "--json") {
            parsed.format = journal_format::json;
        } else {
            arguments.complain("journal does not know " + arguments.text(i) + "; use --json or --follow");
        }
    }
    return parsed;
}

void parse_requested(argument_reader &arguments, wait_request &parsed)
{
    parsed.until = pin_state{arguments.number(1), std::nullopt};
}

void parse_pin_level(argument_reader &arguments, wait_request &parsed)
{
    parsed.until = pin_state{arguments.number(1), arguments.number(3, pin_level) != 0};
}

void parse_transfer(argument_reader &arguments, wait_request &parsed)
{
    parsed.until = i2c_target{arguments.number(1), arguments.number(2, device_address)};
}

constexpr struct {
    pattern words;
    std::size_t size;
    void (*parse)(argument_reader &arguments, wait_request &parsed);
} conditions[] = {{{"pin", nullptr, "requested"}, 3, parse_requested},
                  {{"pin", nullptr, "is", nullptr}, 4, parse_pin_level},
                  {{"transfer", nullptr, nullptr}, 3, parse_transfer}};

constexpr char condition_range[] = "pin PIN requested, pin PIN is VALUE or transfer BUS ADDRESS";

request parse_wait(argument_reader &arguments)
{
    wait_request parsed;
    parsed.timeout = arguments.take_timeout();
    const auto *const found =
        std::find_if(std::begin(conditions), std::end(conditions),
                     [&](const auto &each) { return arguments.matches(each.words, each.size); });
    if (found == std::end(conditions)) {
        arguments.complain("wait does not know these words; use " + std::string(condition_range));
    } else {
        found->parse(arguments, parsed);
    }
    return parsed;
}

constexpr request_form forms[] = {
    {"raise", 1, 2, "PIN [COUNT]", parse_raise},
    {"level", 1, 2, "PIN [VALUE]", parse_level},
    {"fail", 3, 3, "PIN NODE OPERATION", parse_failure<true>},
    {"mend", 1, 3, "PIN [NODE [OPERATION]]", parse_failure<false>},
    {"peek", 3, 4, "BUS ADDRESS REGISTER [COUNT]", parse_peek},
    {"poke", 4, highest_number, "BUS ADDRESS REGISTER VALUE...", parse_poke},
    {"wait", 3, 6, condition_range, parse_wait},
    {"journal", 0, 2, "nothing, or --json, or --follow", parse_journal},
};

} // namespace

const request_form *find_request(const std::string &name)
{
    for (const request_form &form : forms) {
        if (name == form.name) {
            return &form;
        }
    }
    return nullptr;
}

std::string check_count(const request_form &form, std::size_t arguments)
{
    const bool fits = arguments >= form.fewest && arguments <= form.most;
    return fits ? "" : std::string(form.name) + " needs " + form.arguments;
}

// The command line has checked the count already, but other programs may write to the socket.
std::optional<request> parse_request(const std::vector<std::string> &words, std::string &problem)
{
    const request_form *const form = words.empty() ? nullptr : find_request(words[0]);
    if (form == nullptr) {
        problem = "the board does not know this request";
        return std::nullopt;
    }
    problem = check_count(*form, words.size() - 1);
    if (!problem.empty()) {
        return std::nullopt;
    }
    argument_reader arguments(words);
    request parsed = form->parse(arguments);
    problem = arguments.problem();
    return problem.empty() ? std::optional(std::move(parsed)) : std::nullopt;
}

} // namespace kivboard
