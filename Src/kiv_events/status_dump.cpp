// The status dump: all groups and events, in the log.

#include <cinttypes>

#include "common/text.h"
#include "kiv_debug/call_trace.h"
#include "kiv_debug/log_as.h"
#include "registry.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using kiv::call_trace;
using kiv::group_view;
using kiv::item_view;
using kiv::number_of;

namespace
{

void __event_group_print(const group_view &group)
{
    const uintptr_t handle = number_of(group.handle);
    KIV_LOG_PRNT("Event-Group: 0x%08" PRIxPTR " (%" PRIdPTR ")\n", handle, handle);
    KIV_LOG_PRNT("signature: 0x%08x\n", group.signature);
    KIV_LOG_PRNT("pname: %s\n", group.pname);
}

void __event_item_print(const item_view &item)
{
    const uintptr_t handle = number_of(item.handle);
    const uintptr_t container = number_of(item.p_data);
    const uintptr_t group = number_of(item.group);
    KIV_LOG_PRNT("Event-Item: 0x%08" PRIxPTR " (%" PRIdPTR ")\n", handle, handle);
    KIV_LOG_PRNT("signature: 0x%08x\n", item.signature);
    KIV_LOG_PRNT("pname: %s\n", item.pname);
    KIV_LOG_PRNT("p_data: 0x%08" PRIxPTR "(%" PRIdPTR ")\n", container, container);
    KIV_LOG_PRNT("data_sz: %d\n", static_cast<int>(item.data_sz));
    KIV_LOG_PRNT("p_event_group: 0x%08" PRIxPTR " (%" PRIdPTR ")\n", group, group);
    KIV_LOG_PRNT("Read FD: %d, Write FD: %d\n", item.read_fd, item.write_fd);
}

} // namespace

int32_t kiv_events_status_dump(void)
{
    const call_trace trace;
    group_view group = {nullptr, UINT64_MAX, 0, {}};
    while (next_group(group)) {
        KIV_LOG_PRNT("==============================================================\n");
        __event_group_print(group);
        item_view item = {};
        item.serial = UINT64_MAX;
        while (next_item(group, item)) {
            KIV_LOG_PRNT("--------------------------------------------------------------\n");
            __event_item_print(item);
        }
    }
    KIV_LOG_PRNT("==============================================================\n");
    return KIV_OK;
}
