#include "journal.h"

#include <algorithm>
#include <cstdio>

namespace kivboard
{
namespace
{

// Lines are printable already, see gpio_node.
std::string quoted(const std::string &text)
{
    std::string result = "\"";
    for (const char character : text) {
        result += character == '"' || character == '\\' ? "\\" : "";
        result += character;
    }
    return result + "\"";
}

std::string seconds(std::chrono::nanoseconds time)
{
    char text[32];
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
    std::snprintf(text, sizeof text, "%lld.%06lld", static_cast<long long>(us / 1'000'000),
                  static_cast<long long>(us % 1'000'000));
    return text;
}

} // namespace

void journal::add(const std::string &line, const journal_facts &facts)
{
    if (entries_.size() == capacity_) {
        entries_.pop_front();
        ++first_;
    }
    entries_.push_back({clock::now() - start_, std::chrono::system_clock::now(), line, facts, ""});
}

void journal::mark_stimulus(std::uint64_t number, const std::string &request)
{
    entries_[static_cast<std::size_t>(number - first_)].stimulus = request;
}

const journal::entry &journal::at(std::uint64_t number) const
{
    return entries_[static_cast<std::size_t>(number - first_)];
}

std::string journal::as_text(std::uint64_t number, const entry &shown)
{
    return std::to_string(number) + " " + shown.line + "\n";
}

std::string journal::as_json(std::uint64_t number, const entry &shown)
{
    const std::size_t space = std::min(shown.line.find(' '), shown.line.size());
    std::string text = "{\"number\":" + std::to_string(number) + ",\"time\":" + seconds(shown.time) +
                       ",\"wall\":" + seconds(shown.wall_time.time_since_epoch()) +
                       ",\"device\":" + quoted(shown.line.substr(0, space));
    if (shown.facts.transfer) {
        text += ",\"address\":" + std::to_string(shown.facts.transfer->address);
    }
    if (shown.facts.error) {
        text += ",\"errno\":" + std::to_string(*shown.facts.error);
    }
    if (!shown.stimulus.empty()) {
        text += ",\"stimulus\":" + quoted(shown.stimulus);
    }
    return text + ",\"event\":" + quoted(shown.line.substr(std::min(space + 1, shown.line.size()))) + "}\n";
}

std::string journal::from(std::uint64_t number, journal_format format) const
{
    std::string text;
    if (number < first_) {
        const std::string gone = std::to_string(first_ - number);
        text = format == journal_format::json ? "{\"gone\":" + gone + "}\n"
                                              : "(" + gone + " older lines are gone)\n";
        number = first_;
    }
    for (; number < next_number(); ++number) {
        text += format == journal_format::json ? as_json(number, at(number)) : as_text(number, at(number));
    }
    return text;
}

std::optional<std::uint64_t> journal::find(const i2c_target &transfer, std::uint64_t number) const
{
    for (number = std::max(number, first_); number < next_number(); ++number) {
        if (at(number).facts.transfer == transfer) {
            return number;
        }
    }
    return std::nullopt;
}

} // namespace kivboard
