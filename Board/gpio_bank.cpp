#include "gpio_bank.h"

#include <memory>

namespace kivboard
{
namespace
{

// The places in a table of names: the chosen one, or all.
template <typename enumeration, std::size_t count>
std::vector<std::size_t> places(const std::string_view (&)[count], std::optional<enumeration> chosen)
{
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < count; ++i) {
        if (!chosen || *chosen == static_cast<enumeration>(i)) {
            places.push_back(i);
        }
    }
    return places;
}

template <typename enumeration, std::size_t count>
std::string word(const std::string_view (&names)[count], std::optional<enumeration> chosen)
{
    return chosen ? " " + std::string(names[static_cast<std::size_t>(*chosen)]) : "";
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

gpio_bank::pin *gpio_bank::find(std::uint32_t number)
{
    const auto found = pins_.find(number);
    return found != pins_.end() ? &found->second : nullptr;
}

const gpio_pin *gpio_bank::state(std::uint32_t number) const
{
    const auto found = pins_.find(number);
    return found != pins_.end() ? &found->second.state : nullptr;
}

control_reply gpio_bank::no_pin(std::uint32_t number)
{
    return control_reply::error("there is no pin " + std::to_string(number));
}

// Interrupts a pin. @return The outcome, for the journal.
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

control_reply gpio_bank::answer(const raise_request &asked)
{
    pin *const at = find(asked.pin);
    if (at == nullptr) {
        return no_pin(asked.pin);
    }
    const std::string outcome = interrupt(*at, asked.pulses);
    journal_.add(at->label + " raise " + std::to_string(asked.pulses) + ": " + outcome);
    return {true, outcome.starts_with("dropped") ? outcome + "\n" : ""};
}

control_reply gpio_bank::answer(const level_request &asked)
{
    pin *const at = find(asked.pin);
    if (at == nullptr) {
        return no_pin(asked.pin);
    }
    if (!asked.level) {
        return {true, at->state.level() ? "1\n" : "0\n"};
    }
    const std::string outcome = at->state.set_input(*asked.level) ? interrupt(*at, 1) : "no interrupt";
    journal_.add(at->label + " level " + (*asked.level ? "1: " : "0: ") + outcome);
    return {};
}

control_reply gpio_bank::answer(const failure_request &asked)
{
    pin *const at = find(asked.pin);
    if (at == nullptr) {
        return no_pin(asked.pin);
    }
    for (const std::size_t node : places(gpio_attribute_names, asked.attribute)) {
        for (const std::size_t operation : places(gpio_operation_names, asked.operation)) {
            at->nodes[node]->set_failing(static_cast<gpio_operation>(operation), asked.fails);
        }
    }
    journal_.add(at->label + (asked.fails ? " fail" : " mend") + word(gpio_attribute_names, asked.attribute) +
                 word(gpio_operation_names, asked.operation));
    return {};
}

} // namespace kivboard
