// Pins.

#include "command.h"

namespace zol_tool
{

int gpio_get(context &with)
{
    return usage_error(with, "not there yet");
}

int gpio_set(context &with)
{
    return usage_error(with, "not there yet");
}

int gpio_pulse(context &with)
{
    return usage_error(with, "not there yet");
}

int gpio_wait(context &with)
{
    return usage_error(with, "not there yet");
}

int gpio_watch(context &with)
{
    return usage_error(with, "not there yet");
}

} // namespace zol_tool
