#include "gpio_bank.h"

#include <memory>

#include "number.h"

namespace kivboard
{
namespace
{

control_reply refused(const std::string &why)
{
    return {false, why + "\n", false};
}

control_reply no_pin(const std::string &number)
{
    return refused("there is no pin " + number);
}

// The places in a table of names that a word chooses: all when the word is not there, none when it is
// unknown.
template <std::size_t count>
std::vector<std::size_t> choose(const std::string_view (&names)[count], const std::vector<std::string> &words,
                                std::size_t word)
{
    std::vector<std::size_t> chosen;
    for (std::size_t i = 0; i < count; ++i) {
        if (word >= words.size() || words[word] == names[i]) {
            chosen.push_back(i);
        }
    }
    return chosen;
}

} // namespace

gpio_bank::gpio_bank(const std::vector<pin_description> &pins, board_fs &files, journal &journal)
    : journal_(journal)
{
    for (const pin_description &description : pins) {
        const std::string label = "gpio_" + std::to_string(description.number);
        pin &added = pins_.emplace(description.number, pin{label, gpio_pin(description.level)}).first->second;
        const std::string directory = source_root + ("/pins/gpios/" + label);
        for (std::size_t i = 0; i < added.nodes.size(); ++i) {
            auto node =
                std::make_unique<gpio_node>(label, added.state, static_cast<gpio_attribute>(i), journal_);
            added.nodes[i] = node.get();
            files.add(directory + "/" + std::string(gpio_attribute_names[i]), std::move(node));
        }
        for (const auto &[attribute, operation] : description.failures) {
            added.nodes[static_cast<std::size_t>(attribute)]->set_failing(operation, true);
        }
    }
}

gpio_bank::pin *gpio_bank::find(const std::string &number)
{
    const std::optional<std::uint32_t> parsed = parse_number(number);
    const auto found = parsed ? pins_.find(*parsed) : pins_.end();
    return found != pins_.end() ? &found->second : nullptr;
}

// An interrupt for the pin. @return What became of it.
std::string gpio_bank::interrupt(pin &at, std::uint32_t pulses)
{
    switch (at.state.raise(pulses)) {
    case interrupt_outcome::not_requested:
        return "dropped, not requested";
    case interrupt_outcome::masked:
        return "dropped, masked";
    case interrupt_outcome::counted:
        break;
    }
    at.nodes[static_cast<std::size_t>(gpio_attribute::irq)]->announce();
    return "counted, " + std::to_string(at.state.pending()) + " pending";
}

control_reply gpio_bank::raise(const std::vector<std::string> &words)
{
    pin *const at = find(words[1]);
    if (at == nullptr) {
        return no_pin(words[1]);
    }
    const std::optional<std::uint32_t> pulses = words.size() > 2 ? parse_number(words[2]) : 1;
    if (!pulses || *pulses == 0 || *pulses > gpio_pin::highest_count) {
        return refused(words[2] + " is no count; a count is 1 to " + std::to_string(gpio_pin::highest_count));
    }
    const std::string outcome = interrupt(*at, *pulses);
    journal_.add(at->label + " raise " + std::to_string(*pulses) + ": " + outcome);
    return {true, outcome.starts_with("dropped") ? outcome + "\n" : "", false};
}

control_reply gpio_bank::level(const std::vector<std::string> &words)
{
    pin *const at = find(words[1]);
    if (at == nullptr) {
        return no_pin(words[1]);
    }
    if (words.size() == 2) {
        return {true, at->state.level() ? "1\n" : "0\n", false};
    }
    const std::optional<std::uint32_t> level = parse_number(words[2]);
    if (!level || *level > 1) {
        return refused(words[2] + " is no level; a level is 0 or 1");
    }
    const std::string outcome = at->state.set_input(*level != 0) ? interrupt(*at, 1) : "no interrupt";
    journal_.add(at->label + " level " + std::to_string(*level) + ": " + outcome);
    return {};
}

control_reply gpio_bank::set_failing(const std::vector<std::string> &words, bool failing)
{
    pin *const at = find(words[1]);
    if (at == nullptr) {
        return no_pin(words[1]);
    }
    const std::vector<std::size_t> nodes = choose(gpio_attribute_names, words, 2);
    const std::vector<std::size_t> operations = choose(gpio_operation_names, words, 3);
    if (nodes.empty()) {
        return refused(words[2] + " is no node; a node is " + list_names(gpio_attribute_names));
    }
    if (operations.empty()) {
        return refused(words[3] + " is no operation; an operation is " + list_names(gpio_operation_names));
    }
    for (const std::size_t node : nodes) {
        for (const std::size_t operation : operations) {
            at->nodes[node]->set_failing(static_cast<gpio_operation>(operation), failing);
        }
    }
    std::string line = at->label + " " + words[0];
    for (std::size_t i = 2; i < words.size(); ++i) {
        line += " " + words[i];
    }
    journal_.add(line);
    return {};
}

control_reply gpio_bank::fail(const std::vector<std::string> &words)
{
    return set_failing(words, true);
}

control_reply gpio_bank::mend(const std::vector<std::string> &words)
{
    return set_failing(words, false);
}

} // namespace kivboard
