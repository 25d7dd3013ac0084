#include "support/scratch.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace zol_test
{

scratch_directory::scratch_directory()
{
    std::string name = std::filesystem::temp_directory_path() / "zol-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no directory for the test: " + name);
    }
    path_ = name;
}

scratch_directory::~scratch_directory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string scratch_directory::write(std::string_view name, std::string_view content) const
{
    const std::filesystem::path file = path_ / name;
    std::ofstream(file, std::ios::binary) << content;
    return file;
}

std::string configuration(std::string_view general)
{
    return "<board><devices><general>" + std::string(general) + "</general></devices></board>";
}

std::string minimal_configuration()
{
    return configuration("<configName>board-a</configName><debugLevel>1</debugLevel>"
                         "<systemTokensPath>/opt/tokens</systemTokensPath><i2c_buses_num>1</i2c_buses_num>");
}

} // namespace zol_test
