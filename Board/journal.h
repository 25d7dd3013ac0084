// What the board saw, a numbered line each. Keeps the latest lines, and says how many older ones it has
// dropped.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

namespace kivboard
{

class journal
{
public:
    explicit journal(std::size_t capacity = 65'536) : capacity_(capacity) {}

    void add(const std::string &line);

    /// The number that the next line will have.
    [[nodiscard]] std::uint64_t next_number() const { return first_ + lines_.size(); }

    /// The lines from a number on, each ended; where some of them are gone, a line says so.
    [[nodiscard]] std::string from(std::uint64_t number) const;

private:
    std::size_t capacity_;
    std::uint64_t first_ = 1; // the number of lines_.front()
    std::deque<std::string> lines_;
};

} // namespace kivboard
