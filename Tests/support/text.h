// Searches in texts and files.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace zol_test
{

inline std::size_t count_of(const std::string &text, const std::string &part)
{
    std::size_t found = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++found;
    }
    return found;
}

inline std::string contents_of(const std::filesystem::path &file)
{
    std::ostringstream content;
    content << std::ifstream(file).rdbuf();
    return content.str();
}

} // namespace zol_test
