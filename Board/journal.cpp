#include "journal.h"

namespace kivboard
{

void journal::add(const std::string &line)
{
    if (lines_.size() == capacity_) {
        lines_.pop_front();
        ++first_;
    }
    lines_.push_back(line);
}

std::string journal::from(std::uint64_t number) const
{
    std::string text;
    if (number < first_) {
        text = "(" + std::to_string(first_ - number) + " older lines are gone)\n";
        number = first_;
    }
    for (; number < next_number(); ++number) {
        text += std::to_string(number) + " " + lines_[static_cast<std::size_t>(number - first_)] + "\n";
    }
    return text;
}

} // namespace kivboard
