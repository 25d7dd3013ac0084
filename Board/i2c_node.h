// The device node of an I2C bus: takes transfers out of the caller's memory and puts what was read back
// there.
#pragma once

#include "board_fs.h"
#include "i2c_bus.h"
#include "journal.h"

namespace kivboard
{

class i2c_node : public board_file
{
public:
    i2c_node(unsigned number, i2c_bus &bus, journal &journal) : number_(number), bus_(bus), journal_(journal)
    {
    }

    int ioctl(const ioctl_request &request) override;

private:
    unsigned number_;
    i2c_bus &bus_;
    journal &journal_;
};

} // namespace kivboard
