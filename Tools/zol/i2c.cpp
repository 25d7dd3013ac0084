// Registers of I2C devices.

#include "command.h"

namespace zol_tool
{

int i2c_get(context &with)
{
    return usage_error(with, "not there yet");
}

int i2c_set(context &with)
{
    return usage_error(with, "not there yet");
}

int i2c_scan(context &with)
{
    return usage_error(with, "not there yet");
}

int i2c_dump(context &with)
{
    return usage_error(with, "not there yet");
}

int i2c_transfer(context &with)
{
    return usage_error(with, "not there yet");
}

} // namespace zol_tool
