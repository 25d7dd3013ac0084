// The configuration.

#include "command.h"

namespace zol_tool
{

int conf_check(context &with)
{
    return usage_error(with, "not there yet");
}

int conf_show(context &with)
{
    return usage_error(with, "not there yet");
}

} // namespace zol_tool
