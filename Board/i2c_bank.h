// All I2C buses of a board with their device nodes, and the requests of the bench about them.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "board_fs.h"
#include "description.h"
#include "i2c_bus.h"
#include "journal.h"
#include "requests.h"
#include "sandbox.h"

namespace kivboard
{

class i2c_bank
{
public:
    /// Adds the nodes of all buses to the board's files. The file system, which owns them, and the journal must
    /// outlive this.
    i2c_bank(const std::vector<bus_description> &buses, board_fs &files, journal &journal);

    /// "", or the reason for which a bus cannot be forwarded.
    [[nodiscard]] const std::string &problem() const { return problem_; }

    /// The places at which COMMAND sees the nodes, and the folders that list the buses.
    [[nodiscard]] std::vector<bind_graft> grafts() const;

    [[nodiscard]] bool has(std::uint32_t bus) const { return buses_.contains(bus); }

    control_reply answer(const peek_request &asked);
    control_reply answer(const poke_request &asked);

private:
    std::unique_ptr<i2c_bus> make(const bus_description &description);
    i2c_device *find(const register_place &place, std::size_t count, control_reply &otherwise);

    std::map<std::uint32_t, std::unique_ptr<i2c_bus>> buses_; // the nodes refer to them
    journal &journal_;
    std::string problem_;
};

} // namespace kivboard
