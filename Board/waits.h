// The waits of the bench: for the state of a pin, or for a transfer. The board answers when the condition holds, so a
// client needs no loop.
#pragma once

#include <cstdint>

#include "control_server.h"
#include "gpio_bank.h"
#include "i2c_bank.h"
#include "journal.h"
#include "requests.h"

namespace kivboard
{

class waits
{
public:
    /// The parts of the board must outlive this.
    waits(const gpio_bank &pins, const i2c_bank &buses, const journal &journal)
        : pins_(pins), buses_(buses), journal_(journal)
    {
    }

    /// @param session  Of the client that waits; it must exist as long as the reply is awaited.
    /// @return A reply that comes later. The server asks for it after each event.
    control_reply begin(const wait_request &asked, control_session &session) const;

private:
    bool is_over(const pin_state &wanted, control_session &session, control_reply &reply) const;
    bool is_over(const i2c_target &wanted, control_session &session, control_reply &reply) const;

    const gpio_bank &pins_;
    const i2c_bank &buses_;
    const journal &journal_;
};

} // namespace kivboard
