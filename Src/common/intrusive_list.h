// GLib lists whose links lie in the records, so that adding one cannot fail.
#pragma once

#include <glib.h>

namespace kiv
{

/// @param link  The record's own.
template <typename Record>
void prepend(GList *&list, Record &record, GList &link) noexcept
{
    link = {&record, nullptr, nullptr};
    list = g_list_concat(&link, list);
}

} // namespace kiv
