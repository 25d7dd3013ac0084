// Files that a test needs for itself, and configurations made of them.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace zol_test
{

/// A directory that goes with its owner.
class scratch_directory
{
public:
    scratch_directory();
    ~scratch_directory();
    scratch_directory(const scratch_directory &) = delete;
    scratch_directory &operator=(const scratch_directory &) = delete;

    [[nodiscard]] const std::filesystem::path &path() const { return path_; }

    /// Writes a file and returns its path.
    std::string write(std::string_view name, std::string_view content) const;

private:
    std::filesystem::path path_;
};

/// A configuration whose section "general" holds this XML.
std::string configuration(std::string_view general);

/// What a configuration needs at the least for the library to start.
std::string minimal_configuration();

} // namespace zol_test
