// The journal: a numbered entry for each event on the board. Keeps the latest entries and counts the dropped
// ones.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace kivboard
{

enum class journal_format { text, json };

struct i2c_target {
    std::uint32_t bus;
    std::uint32_t address;

    bool operator==(const i2c_target &) const = default;
};

/// The call of an application that an entry is about.
struct journal_facts {
    std::optional<i2c_target> transfer;
    std::optional<int> error; // 0 or an errno value
};

class journal
{
public:
    explicit journal(std::size_t capacity = 65'536) : capacity_(capacity) {}

    /// @param line  The device, and what has happened to it.
    void add(const std::string &line, const journal_facts &facts = {});

    /// Marks an entry as caused by the bench. @param request  The request that repeats it.
    void mark_stimulus(std::uint64_t number, const std::string &request);

    /// The number that the next entry will have.
    [[nodiscard]] std::uint64_t next_number() const { return first_ + entries_.size(); }

    /// The entries from a number on, one a line. The first line tells how many of them are gone.
    [[nodiscard]] std::string from(std::uint64_t number, journal_format format = journal_format::text) const;

    /// Searches the entries from a number on. @return The number of the first transfer to a device.
    [[nodiscard]] std::optional<std::uint64_t> find(const i2c_target &transfer, std::uint64_t number) const;

private:
    using clock = std::chrono::steady_clock;

    struct entry {
        clock::duration time; // since the board's start
        std::chrono::system_clock::time_point wall_time;
        std::string line;
        journal_facts facts;
        std::string stimulus; // "" if it did not come from the bench
    };

    static std::string as_text(std::uint64_t number, const entry &shown);
    static std::string as_json(std::uint64_t number, const entry &shown);
    [[nodiscard]] const entry &at(std::uint64_t number) const;

    std::size_t capacity_;
    clock::time_point start_ = clock::now();
    std::uint64_t first_ = 1; // the number of entries_.front()
    std::deque<entry> entries_;
};

} // namespace kivboard
