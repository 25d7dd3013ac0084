// Tokens.

#include "command.h"

namespace zol_tool
{

int token_list(context &with)
{
    return usage_error(with, "not there yet");
}

int token_show(context &with)
{
    return usage_error(with, "not there yet");
}

} // namespace zol_tool
