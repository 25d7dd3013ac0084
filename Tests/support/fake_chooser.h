// The chooser script of the configuration, without touching the machine's /usr/bin.
#pragma once

#include <string>

namespace zol_test
{

/// While it exists, what the library starts through a shell is this command line instead.
class fake_chooser
{
public:
    explicit fake_chooser(std::string command);
    ~fake_chooser();
    fake_chooser(const fake_chooser &) = delete;
    fake_chooser &operator=(const fake_chooser &) = delete;

    /// The command line to run in place of the library's.
    static const char *instead_of(const char *command);

private:
    std::string command_;
};

} // namespace zol_test
