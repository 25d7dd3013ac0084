// The public functions on groups and events: they check their arguments, and report the outcome.

#include <atomic>
#include <cinttypes>

#include "common/text.h"
#include "kiv_debug/call_trace.h"
#include "kiv_debug/log_as.h"
#include "registry.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

using kiv::call_site;
using kiv::call_trace;
using kiv::event_use;
using kiv::number_of;
using kiv::removal;

namespace
{

std::atomic<int32_t> g_simulation{0};

bool __event_group_is_valid(const kiv_event_group *group)
{
    if (group == nullptr) {
        KIV_LOG_ERRR("Event group is null\n");
        return false;
    }
    const uint32_t signature = kiv::signature_of(group);
    if (signature != kiv::group_signature) {
        KIV_LOG_ERRR("Event group 0x%" PRIxPTR " does not have a valid signature (0x%x)\n", number_of(group),
                     signature);
        return false;
    }
    return true;
}

kiv_event_group *__event_group_alloc(const char *name)
{
    kiv_event_group *const group = kiv::register_group(name);
    if (group == nullptr) {
        KIV_LOG_ERRR("Failed to allocate memory (%d bytes)\n", static_cast<int>(sizeof *group));
    }
    return group;
}

removal __event_group_remove_event_item(kiv_event_item *item)
{
    const removal result = kiv::unregister_item(item);
    if (!KIV_HOLDS(result != removal::has_no_group)) {
        KIV_LOG_ERRR("Null pointer event-group 0x%" PRIxPTR " event-item=0x%" PRIxPTR "\n",
                     number_of(nullptr), number_of(item));
    }
    return result;
}

int32_t refuse_item(const char *caller)
{
    KIV_LOG_AS(caller, ERRR, "Invalid event item handle\n");
    return KIV_ERR_INVALID_PARAM;
}

int32_t refuse_group(call_site site = call_site::here())
{
    KIV_LOG_AT(site, ERRR, "Invalid event group handle\n");
    return KIV_ERR_INVALID_PARAM;
}

int32_t __kiv_events_delete_event(kiv_event_item *item)
{
    const call_trace trace;
    if (!__event_item_is_valid(item)) {
        return refuse_item(__func__);
    }
    switch (__event_group_remove_event_item(item)) {
    case removal::used:
        kiv::wake_users(*item);
        [[fallthrough]];
    case removal::unused:
        kiv::leave(*item);
        return KIV_OK;
    case removal::has_no_group:
        KIV_LOG_ERRR("Failed removing event item %" PRIdPTR " from group %" PRIdPTR "\n", number_of(item),
                     number_of(nullptr));
        return KIV_ERR_INVALID_PARAM;
    case removal::is_gone:
        break;
    }
    __event_item_is_valid(item); // says what is wrong with it
    return refuse_item(__func__);
}

int32_t __event_item_set_enable(kiv_event_item *item, int32_t enable)
{
    const event_use use = kiv::use_event(item);
    if (!use) {
        __event_item_is_valid(item); // says what is wrong with it
        return refuse_item(__func__);
    }
    item->enabled.store(enable, std::memory_order_relaxed);
    return KIV_OK;
}

} // namespace

int32_t kiv_events_init(void)
{
    const call_trace trace;
    const kiv::start_state before = kiv::exchange_started(true);
    if (!KIV_HOLDS(before.is_empty)) {
        KIV_LOG_ERRR("There are event groups from before the start, they stay\n");
    }
    if (before.is_started) {
        KIV_LOG_ERRR("Module already initialized\n");
        return KIV_ERR_STATE;
    }
    return KIV_OK;
}

int32_t kiv_events_deinit(void)
{
    const call_trace trace;
    if (!kiv::exchange_started(false).is_started) {
        KIV_LOG_ERRR("Trying to deinitialize uninitialized module\n");
        return KIV_ERR_STATE;
    }
    return KIV_OK;
}

int32_t kiv_events_set_simulator_mode(int32_t on)
{
    g_simulation = on != 0 ? 1 : 0;
    return KIV_OK;
}

int32_t kiv_events_create_group(const char *name, kiv_event_group **out)
{
    const call_trace trace;
    if (name == nullptr) {
        KIV_LOG_ERRR("Invalid name\n");
        return KIV_ERR_INVALID_PARAM;
    }
    if (out == nullptr) {
        KIV_LOG_ERRR("Invalid handle pointer\n");
        return KIV_ERR_INVALID_PARAM;
    }
    kiv_event_group *const group = __event_group_alloc(name);
    if (group == nullptr) {
        KIV_LOG_ERRR("Failed allocating event-group, err %d\n", KIV_ERR_NO_MEMORY);
        return KIV_ERR_NO_MEMORY;
    }
    *out = group;
    return KIV_OK;
}

int32_t kiv_events_delete_group(kiv_event_group *group)
{
    const call_trace trace;
    if (!__event_group_is_valid(group)) {
        return refuse_group();
    }
    char name[kiv::name_size];
    switch (kiv::unregister_group(group, name)) {
    case KIV_OK:
        return KIV_OK;
    case KIV_ERR_STATE:
        KIV_LOG_ERRR("Event group 0x%" PRIxPTR " (%s) still has events\n", number_of(group), name);
        return KIV_ERR_STATE;
    default:
        __event_group_is_valid(group); // says what is wrong with it
        return refuse_group();
    }
}

int32_t kiv_events_create_event(const char *name, kiv_events_notify_cb notify_cb, kiv_event_group *group,
                                kiv_event_item **out)
{
    const call_trace trace;
    if (!__event_group_is_valid(group)) {
        return refuse_group();
    }
    if (!KIV_HOLDS(out != nullptr)) {
        KIV_LOG_ERRR("Nowhere to put the handle of event %s\n", kiv::shown(name));
        return KIV_ERR_INVALID_PARAM;
    }
    if (name == nullptr) {
        KIV_LOG_ERRR("Invalid name\n");
        return KIV_ERR_INVALID_PARAM;
    }
    kiv_event_item *item = nullptr;
    if (const int32_t status = __event_item_alloc(name, notify_cb, item); status != KIV_OK) {
        return status;
    }
    if (!kiv::register_item(group, *item)) {
        __event_item_free(*item);
        __event_group_is_valid(group); // says what is wrong with it
        return refuse_group();
    }
    *out = item;
    return KIV_OK;
}

int32_t kiv_events_delete_event(kiv_event_item *item)
{
    const call_trace trace;
    return __kiv_events_delete_event(item);
}

int32_t kiv_events_delete_event_by_name(const char *name)
{
    const call_trace trace;
    // Not held on to: the event would be in use, if only by this call.
    kiv_event_item *const item = __event_item_find_by_name(name).get();
    return __kiv_events_delete_event(item);
}

int32_t kiv_events_set_enable_event(kiv_event_item *item, int32_t enable)
{
    const call_trace trace;
    return __event_item_set_enable(item, enable);
}

int32_t kiv_events_set_enable_event_by_name(const char *name, int32_t enable)
{
    const call_trace trace;
    const event_use use = __event_item_find_by_name(name);
    return __event_item_set_enable(use.get(), enable);
}
