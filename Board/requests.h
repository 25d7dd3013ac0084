// The requests of the bench: how they are called, and how many words they take. The command line and the
// board read the same table.
#pragma once

#include <cstddef>
#include <limits>
#include <string>
#include <vector>

namespace kivboard
{

struct request_form {
    const char *name;
    std::size_t fewest; // words behind the name
    std::size_t most;
    const char *arguments;
};

inline constexpr std::size_t any_number = std::numeric_limits<std::size_t>::max();

inline constexpr request_form request_forms[] = {
    {"raise", 1, 2, "PIN [COUNT]"},
    {"level", 1, 2, "PIN [VALUE]"},
    {"fail", 3, 3, "PIN NODE OPERATION"},
    {"mend", 1, 3, "PIN [NODE [OPERATION]]"},
    {"peek", 3, 4, "BUS ADDRESS REGISTER [COUNT]"},
    {"poke", 4, any_number, "BUS ADDRESS REGISTER VALUE..."},
    {"journal", 0, 1, "nothing, or --follow"},
};

/// Null when there is no such request.
inline const request_form *find_request(const std::string &name)
{
    for (const request_form &form : request_forms) {
        if (name == form.name) {
            return &form;
        }
    }
    return nullptr;
}

/// @param words  The request, its name first. @return "" or what is wrong with the number of words.
inline std::string misuse(const request_form &form, const std::vector<std::string> &words)
{
    const std::size_t given = words.size() - 1;
    return given < form.fewest || given > form.most ? std::string(form.name) + " needs " + form.arguments
                                                    : "";
}

} // namespace kivboard
