#include "support/fake_chooser.h"

#include <utility>

namespace zol_test
{
namespace
{

const char *g_command;

}

fake_chooser::fake_chooser(std::string command) : command_(std::move(command))
{
    g_command = command_.c_str();
}

fake_chooser::~fake_chooser()
{
    g_command = nullptr;
}

const char *fake_chooser::instead_of(const char *command)
{
    return g_command != nullptr ? g_command : command;
}

} // namespace zol_test
