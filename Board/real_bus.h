// A bus of the board that is forwarded to one of the machine.
#pragma once

#include <memory>

#include "common/unique_fd.h"
#include "i2c_bus.h"

namespace kivboard
{

/// Every transfer goes to the machine's node as plain messages. The board serves nothing else until it ends.
class real_bus : public i2c_bus
{
public:
    /// @param[out] problem  The reason when there is no bus.
    static std::unique_ptr<real_bus> open(const bus_description &description, std::string &problem);

    /// Those of the machine's bus that the board has as well.
    [[nodiscard]] unsigned long functions() const override { return functions_; }
    int claim(std::uint16_t address) override;
    void set_retries(unsigned long retries) override;
    void set_timeout(std::chrono::milliseconds timeout) override;
    int transfer(std::vector<i2c_message> &messages) override;

    [[nodiscard]] bool is_real() const override { return true; }
    [[nodiscard]] std::string remark() const override;

private:
    real_bus(kiv::unique_fd node, unsigned long functions);

    kiv::unique_fd node_;
    unsigned long functions_;
    std::chrono::microseconds duration_{0}; // of the last transfer
};

} // namespace kivboard
