// Takes one record from an event's pipe.
#pragma once

#include "kiv_debug/log_as.h"
#include "records.h"

namespace kiv
{

enum class read_result {
    delivered,
    failed,     // there was no whole record; the log says why
    incomplete, // more of a long record is to come; the part that has arrived is kept
    deleted     // the event is
};

/// Delivers one record of an event into an entry, or as much of it as the entry has room for. Never waits.
/// @param site  The call of the wait, for the log.
read_result read_record(kiv_event_item &item, kiv_event_wait_entry &entry, call_site site);

} // namespace kiv
