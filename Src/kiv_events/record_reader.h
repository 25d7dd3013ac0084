// Takes one record from an event's pipe.
#pragma once

#include "registry.h"
#include "time_limit.h"

namespace kiv
{

enum class read_result {
    delivered,
    failed,    // there was no whole record; the log says why
    incomplete // the time was up before a long record was in; what came is kept
};

/// Delivers one record of an event into an entry, or as much of it as the entry has room for.
read_result read_record(kiv_event_item &item, kiv_event_wait_entry &entry, const time_limit &limit);

} // namespace kiv
