// The library as an application would have started it.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "zol/zol.h"

namespace zol_bench
{

class started_library
{
public:
    /// @param bus_node  The device node of I2C bus 4.
    explicit started_library(const std::string &bus_node)
    {
        char path[] = "/tmp/zol-bench-XXXXXX";
        const int file = mkstemp(path);
        const std::string xml = "<c><devices><general><configName>b</configName><debugLevel>1</debugLevel>"
                                "<systemTokensPath>/</systemTokensPath><i2c_buses_num>4</i2c_buses_num>"
                                "<i2c_bus_4_dev>" +
                                bus_node + "</i2c_bus_4_dev></general></devices></c>";
        const bool written = write(file, xml.data(), xml.size()) == static_cast<ssize_t>(xml.size());
        close(file);
        is_started_ = written && zol_init(path) == KIV_OK;
        unlink(path);
    }
    ~started_library() { zol_deinit(); }
    started_library(const started_library &) = delete;
    started_library &operator=(const started_library &) = delete;

    [[nodiscard]] bool is_started() const { return is_started_; }

private:
    bool is_started_ = false;
};

} // namespace zol_bench
