// The console, with a command for every operation on events.

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "common/text.h"
#include "events_test.h"
#include "kiv_test/console.h"
#include "zol/kiv_events.h"
#include "zol/kiv_status.h"

using kiv::events_test::id_of;
using kiv::events_test::listener_info;
using kiv::events_test::notify_text;

namespace
{

// Any number may be typed. The library looks up a handle among the live ones before it reads its memory.
template <typename Handle>
Handle *handle_of(intptr_t id)
{
    return reinterpret_cast<Handle *>(id);
}

void __print_interactive_help()
{
    std::puts("========================\n"
              "Interactive mode:\n"
              "========================\n"
              "'exit' \t\t\t\t: Exit interactive mode\n"
              "'alloc group  <name>\t\t: Allocate event group called <name>\n"
              "'free group <id>' \t\t\t: Free event-group with ID number <id>\n"
              "'create <name> <data_sz> <groupid>'\t: Create event-item\n"
              "'delete <id>' \t\t\t: Delete event-item with ID number <id>>\n"
              "'notify <event id> <text-msg>'\t: Sends <text-msg> via <event id>\n"
              "'waitfor <name> <timeout> <iter>'\t: Waits <iter> times for event called <event-name> for "
              "<timeout>.\n"
              "'getfd <name>'\t\t\t: Get the fd to wait on for event <name>\n"
              "'dumpall' \t\t\t: Dump event DB");
}

// The start of a line decides, so that blanks or words behind a command do no harm.
bool starts_with(const char *line, const char *word)
{
    return std::strncmp(line, word, std::strlen(word)) == 0;
}

// The words of a command; a line holds no longer ones.
using word = char[kiv::console_line_size];

bool dump_all(const char *line, int &)
{
    if (!starts_with(line, "dumpall")) {
        return false;
    }
    kiv_events_status_dump();
    return true;
}

bool print_help(const char *line, int &)
{
    if (!starts_with(line, "help")) {
        return false;
    }
    __print_interactive_help();
    return true;
}

bool alloc_group(const char *line, int &)
{
    word group_called;
    if (std::sscanf(line, "alloc group %63s", group_called) != 1) {
        return false;
    }
    kiv_event_group *group = nullptr;
    if (const int32_t status = kiv_events_create_group(group_called, &group); status != KIV_OK) {
        std::printf("failed creating event group err=%d\n", status);
    } else {
        std::printf("event group created, ID = %" PRIdPTR "\n", id_of(group));
    }
    return true;
}

bool free_group(const char *line, int &)
{
    intptr_t id = 0;
    if (std::sscanf(line, "free group %" SCNdPTR, &id) != 1) {
        return false;
    }
    if (const int32_t status = kiv_events_delete_group(handle_of<kiv_event_group>(id)); status != KIV_OK) {
        std::printf("delete group failed err=%d\n", status);
    }
    return true;
}

// The size only documents the event to be made: an event takes payloads of any size.
bool create(const char *line, int &)
{
    word item_called;
    int32_t size = 0;
    intptr_t group = 0;
    if (std::sscanf(line, "create %63s %" SCNd32 " %" SCNdPTR, item_called, &size, &group) != 3) {
        return false;
    }
    kiv_event_item *item = nullptr;
    if (const int32_t status =
            kiv_events_create_event(item_called, nullptr, handle_of<kiv_event_group>(group), &item);
        status != KIV_OK) {
        std::printf("create event failed err=%d\n", status);
    } else {
        std::printf("created event (ID=%" PRIdPTR ")\n", id_of(item));
    }
    return true;
}

bool delete_by_id(const char *line, int &)
{
    intptr_t id = 0;
    if (std::sscanf(line, "delete %" SCNdPTR, &id) != 1) {
        return false;
    }
    if (const int32_t status = kiv_events_delete_event(handle_of<kiv_event_item>(id)); status != KIV_OK) {
        std::printf("delete event failed err=%d\n", status);
    } else {
        std::printf("deleted event (ID=%" PRIdPTR ")\n", id);
    }
    return true;
}

bool delete_by_name(const char *line, int &)
{
    word item_called;
    if (std::sscanf(line, "delete_name %63s", item_called) != 1) {
        return false;
    }
    if (const int32_t status = kiv_events_delete_event_by_name(item_called); status != KIV_OK) {
        std::printf("delete event failed err=%d\n", status);
    } else {
        std::printf("deleted event (%s)\n", item_called);
    }
    return true;
}

void print_notified(int32_t status)
{
    if (status != KIV_OK) {
        std::printf("notify event failed err=%d\n", status);
    }
}

bool notify_by_id(const char *line, int &)
{
    intptr_t id = 0;
    word text;
    if (std::sscanf(line, "notify %" SCNdPTR " %63s", &id, text) != 2) {
        return false;
    }
    print_notified(notify_text(handle_of<kiv_event_item>(id), text));
    return true;
}

bool notify_by_name(const char *line, int &)
{
    word item_called;
    word text;
    if (std::sscanf(line, "notify_name %63s %63s", item_called, text) != 2) {
        return false;
    }
    print_notified(
        kiv_events_notify_by_name(item_called, text, static_cast<uint32_t>(std::strlen(text) + 1), 0x4321));
    return true;
}

// A detached listener, which owns its task.
void *listen_alone(void *argument)
{
    const std::unique_ptr<listener_info> info(static_cast<listener_info *>(argument));
    return kiv::events_test::__listener(info.get());
}

// Detached, because the console goes on and has no command that would join it.
int start_listening_alone(std::unique_ptr<listener_info> info)
{
    pthread_t thread = {};
    const int error = pthread_create(&thread, nullptr, listen_alone, info.get());
    if (error == 0) {
        pthread_detach(thread);
        static_cast<void>(info.release()); // the thread's
    }
    return error;
}

bool wait_for(const char *line, int &result)
{
    word item_called;
    int32_t timeout = 0;
    int32_t iterations = 0;
    if (std::sscanf(line, "waitfor %63s %" SCNd32 " %" SCNd32, item_called, &timeout, &iterations) != 3) {
        return false;
    }
    // Each listener has a task of its own, so that several can wait at a time.
    std::unique_ptr<listener_info> info(new (std::nothrow) listener_info());
    int error = ENOMEM;
    if (info) {
        info->count = 1;
        info->iterations = iterations;
        info->timeout = timeout;
        kiv::copy_bounded(info->names[0], sizeof info->names[0], item_called);
        error = start_listening_alone(std::move(info));
    }
    if (error != 0) {
        std::printf("failed creating listener thread err=%d\n", error);
        result = error;
    }
    return true;
}

bool get_fd(const char *line, int &)
{
    word item_called;
    if (std::sscanf(line, "getfd %63s", item_called) != 1) {
        return false;
    }
    int32_t fd = -1;
    if (const int32_t status = kiv_events_get_event_fd(item_called, &fd); status != KIV_OK) {
        std::printf("get event fd failed err=%d\n", status);
    } else {
        std::printf("get event fd for %s :%d\n", item_called, fd);
    }
    return true;
}

// A console command. Each tries to scan the line, so the formats are the grammar, and no table repeats it.
// @return False for a line that is not its own.
using console_command = bool (*)(const char *line, int &result);

constexpr console_command commands[] = {
    dump_all,       print_help,   alloc_group,    free_group, create, delete_by_id,
    delete_by_name, notify_by_id, notify_by_name, wait_for,   get_fd,
};

} // namespace

int kiv::events_test::run_console()
{
    __print_interactive_help();
    std::puts("###########################################");
    int result = 0;
    char line[kiv::console_line_size];
    for (;;) {
        std::printf("<cmd>: ");
        if (!kiv::read_line(line)) { // the end of the input ends the console as well
            return result;
        }
        if (starts_with(line, "exit")) {
            std::puts("exiting interactive mode!");
            return result;
        }
        const bool known = std::any_of(std::begin(commands), std::end(commands),
                                       [&](console_command run) { return run(line, result); });
        if (!known) {
            std::printf("Unrecognized command:\n%s\n", line);
            __print_interactive_help();
        }
    }
}
