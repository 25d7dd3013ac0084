#include "waits.h"

#include "hex.h"

namespace kivboard
{
namespace
{

std::string describe(const gpio_pin &pin)
{
    return !pin.is_requested() ? "is not requested"
           : pin.is_masked()   ? "is requested, but masked"
                               : "is requested";
}

} // namespace

// While a wait is not over, the reply is an error with the present state: the right one for a timeout.

bool waits::is_over(const pin_state &wanted, control_session &, control_reply &reply) const
{
    const gpio_pin *const pin = pins_.state(wanted.pin);
    if (pin == nullptr) {
        reply = gpio_bank::no_pin(wanted.pin);
        return true;
    }
    const bool holds =
        wanted.level ? pin->level() == *wanted.level : pin->is_requested() && !pin->is_masked();
    const std::string state = wanted.level ? pin->level() ? "is 1" : "is 0" : describe(*pin);
    reply = holds ? control_reply{}
                  : control_reply::error("timeout: pin " + std::to_string(wanted.pin) + " " + state);
    return holds;
}

bool waits::is_over(const i2c_target &wanted, control_session &session, control_reply &reply) const
{
    if (!buses_.has(wanted.bus)) {
        reply = control_reply::error("there is no bus " + std::to_string(wanted.bus));
        return true;
    }
    const std::optional<std::uint64_t> found = journal_.find(wanted, session.since);
    session.since = found ? *found + 1 : journal_.next_number();
    reply = found ? control_reply{}
                  : control_reply::error("timeout: no transfer to " + hex_number(wanted.address) +
                                         " on bus " + std::to_string(wanted.bus));
    return found.has_value();
}

control_reply waits::begin(const wait_request &asked, control_session &session) const
{
    using clock = std::chrono::steady_clock;
    control_reply reply;
    reply.deadline = asked.timeout ? clock::now() + *asked.timeout : clock::time_point::max();
    reply.later = [this, asked, deadline = reply.deadline, &session](control_reply &known) {
        const auto check = [&](const auto &wanted) { return is_over(wanted, session, known); };
        return std::visit(check, asked.until) || clock::now() >= deadline;
    };
    return reply;
}

} // namespace kivboard
