// Files of a test, and configurations made of them.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zol_test
{

/// A directory that is removed with its owner.
class scratch_directory
{
public:
    scratch_directory()
    {
        std::string name = std::filesystem::temp_directory_path() / "zol-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no directory for the test: " + name);
        }
        path_ = name;
    }
    ~scratch_directory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    scratch_directory(const scratch_directory &) = delete;
    scratch_directory &operator=(const scratch_directory &) = delete;

    [[nodiscard]] const std::filesystem::path &path() const { return path_; }

    /// Writes a file and returns its path.
    std::string write(std::string_view name, std::string_view content) const
    {
        const std::filesystem::path file = path_ / name;
        std::ofstream(file, std::ios::binary) << content;
        return file;
    }

private:
    std::filesystem::path path_;
};

/// A configuration whose section "general" holds this XML.
inline std::string configuration(const std::string &general)
{
    return "<board><devices><general>" + general + "</general></devices></board>";
}

/// The smallest configuration with which the library starts.
inline std::string minimal_configuration()
{
    return configuration("<configName>board-a</configName><debugLevel>1</debugLevel>"
                         "<systemTokensPath>/opt/tokens</systemTokensPath><i2c_buses_num>1</i2c_buses_num>");
}

} // namespace zol_test
