// A bar that shows how far a long step is. It is for people: only a terminal gets it.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zol_tools
{

class progress
{
public:
    /// @param total  Of what at() counts; 0 if it is not known.
    progress(std::string step, std::uint64_t total);

    /// Removes the bar.
    ~progress();
    progress(const progress &) = delete;
    progress &operator=(const progress &) = delete;

    /// Cheap enough for each line of a large file.
    void at(std::uint64_t done)
    {
        if (done >= next_look_) {
            look(done);
        }
    }

private:
    using clock = std::chrono::steady_clock;

    void look(std::uint64_t done);

    std::string step_;
    std::uint64_t total_;
    std::uint64_t next_look_;
    clock::time_point next_show_;
    bool is_shown_ = false;
};

} // namespace zol_tools
