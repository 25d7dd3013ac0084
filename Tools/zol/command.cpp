#include "command.h"

#include "number.h"
#include "zol/kiv_debug.h"

namespace zol_tool
{

std::string context::value(const char *name, const char *otherwise) const
{
    const auto at = options.find(name);
    return at != options.end() ? at->second : otherwise;
}

zol::result<zol::library> start(context &with)
{
    auto started = zol::library::start(with.configuration.c_str());
    if (!started) {
        refuse(with, started.error().message());
        return started;
    }
    with.log.set_aside();
    if (!with.verbose) {
        __atomic_store_n(&g_debugLevel, 0, __ATOMIC_RELAXED); // the errors come through the other stream
    }
    return started;
}

int refuse(context &with, std::string_view otherwise, const std::string &subject)
{
    const std::string reason = with.log.take_reason();
    with.out.error((subject.empty() ? "" : subject + ": ") +
                   (reason.empty() ? std::string(otherwise) : reason));
    return refused;
}

int usage_error(context &with, const std::string &what)
{
    with.out.error(what + "; see zol " + with.form.group + " " + with.form.verb + " --help");
    return wrong_usage;
}

std::optional<std::uint32_t> parse_number(std::string_view word, std::uint32_t most)
{
    const auto number = kivboard::parse_number(word);
    return number && *number <= most ? number : std::nullopt;
}

} // namespace zol_tool
