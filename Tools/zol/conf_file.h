// A configuration file as the library reads it, with the line of every element.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zol_tool
{

/// An element, or another node that a look-up takes for one because it bears a name.
struct conf_element {
    std::string name;
    int line;
    std::optional<std::string> value; // the content of its first child; none: that child has no content
    bool is_in_general;               // below <general>
    bool is_group;                    // it holds elements
    bool begins_with_comment;         // so the comment is the value
    bool is_real;                     // else: a processing instruction or an entity reference
};

struct conf_file {
    std::string path;
    std::vector<conf_element> elements; // in the order of the document
    std::string problem;                // the first error in the file; "": none
    int problem_line = 0;
    bool has_devices = false;
    bool has_general = false;

    /// By its name, the first element that a look-up comes to.
    std::map<std::string, std::size_t, std::less<>> searched;

    /// The element that the library takes for a key: the first one that it comes to. Null: there is none.
    [[nodiscard]] const conf_element *find(std::string_view name) const noexcept;
};

/// Reads a file, if it is a regular one. What an error has left of it is there, as it is for the library.
conf_file read_conf_file(const std::string &path);

} // namespace zol_tool
