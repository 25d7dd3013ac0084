// The events test: scripted tests with a listener on a thread of its own, and a console for every operation.
// Handles are printed as the decimal numbers that they are, and typed back the same way.

#include <getopt.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "common/console.h"
#include "common/log_as.h"
#include "common/text.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_events.h"
#include "zol/kiv_status.h"
#include "zol/kiv_test.h"
#include "zol/kiv_thread.h"

namespace
{

constexpr int32_t num_events = 50;
constexpr std::size_t text_size = 64; // of names and of notifications
constexpr int32_t wait_timeout_us = 10'000'000;
constexpr int32_t disabled_cycles = 10;
constexpr char group_name[] = "event_group_001";

// What a listener is to do, and how it went.
struct listener_info {
    int32_t count;
    int32_t iterations;
    char names[num_events][text_size];
    int32_t timeout; // microseconds
    int32_t failed;
    kiv_event_wait_entry entries[num_events]; // the listener's own
    std::atomic<int64_t> received;
    std::atomic<bool> ended;
};

listener_info g_listener_info;
kiv_event_item *ev_item[2][num_events]; // of __test01 and __test02
kiv_event_wait_entry event[num_events]; // of __test02
char name[num_events][text_size];       // of __test02
pthread_attr_t g_attr;
pthread_t g_listener;

intptr_t id_of(const void *handle)
{
    return reinterpret_cast<intptr_t>(handle);
}

template <typename Handle>
Handle *handle_of(intptr_t id)
{
    return reinterpret_cast<Handle *>(id);
}

void print_verdict(bool passed)
{
    std::printf("%s\n", passed ? "Test PASSED!" : "Test FAILED!");
}

void format_name(char (&to)[text_size], int32_t index)
{
    std::snprintf(to, sizeof to, "%s_%d", "event_item", index);
}

void format_text(char (&to)[text_size], const kiv_event_item *item, int32_t index, int32_t cycle)
{
    std::snprintf(to, sizeof to, "event_item0x%" PRIxPTR "_test_msg%04d_%s", id_of(item), index,
                  cycle % 2 == 0 ? "lllooonnnggg!!!" : "short");
}

int32_t notify_text(kiv_event_item *item, const char *text)
{
    return kiv_events_notify(item, text, static_cast<uint32_t>(std::strlen(text) + 1), 0x1234);
}

void *__listener(void *argument)
{
    auto *const info = static_cast<listener_info *>(argument);
    info->failed = 1;
    std::printf("Going to wait for %d events %d times\n", info->count, info->iterations);
    const int64_t total = int64_t{info->count} * info->iterations;
    int64_t received = 0;
    int32_t status = KIV_OK;
    char text[text_size];
    for (int64_t passes = 0; received < total && passes < total; ++passes) {
        for (int32_t i = 0; i < info->count; ++i) {
            KIV_LOG_INF1("preparing event %s\n", info->names[i]);
            info->entries[i] = {info->names[i], 0, text, sizeof text, 0};
        }
        status = kiv_events_wait_for(info->entries, static_cast<uint32_t>(info->count), info->timeout);
        if (status != KIV_OK) {
            KIV_LOG_ERRR("waitfor returned err %d\n", status);
            continue;
        }
        for (int32_t i = 0; i < info->count; ++i) {
            const kiv_event_wait_entry &entry = info->entries[i];
            if (entry.fired != 0) {
                info->received = ++received;
                KIV_LOG_INF1("### got %" PRId64 " events ###\n", received);
                KIV_LOG_INF1("Got event[%d]:%.*s, max expected len %d bytes, actual len %d bytes\n", i,
                             static_cast<int>(strnlen(text, entry.actual_sz)), text,
                             static_cast<int>(entry.data_sz), static_cast<int>(entry.actual_sz));
            }
        }
    }
    info->failed = received == total && status == KIV_OK ? 0 : 1;
    info->ended = true;
    return nullptr;
}

int start_listener(int32_t iterations)
{
    pthread_attr_init(&g_attr);
    pthread_attr_setdetachstate(&g_attr, PTHREAD_CREATE_JOINABLE);
    g_listener_info.count = num_events;
    g_listener_info.iterations = iterations;
    g_listener_info.timeout = wait_timeout_us;
    g_listener_info.received = 0;
    g_listener_info.ended = false;
    const int error = pthread_create(&g_listener, &g_attr, __listener, &g_listener_info);
    pthread_attr_destroy(&g_attr);
    return error;
}

// Keeps the notifier from running so far ahead that a pipe fills up, which nobody would empty any more if the
// listener gave up. @return Whether the listener is still there.
bool wait_for_listener(int32_t cycle)
{
    constexpr int64_t far_ahead = 256; // records of one event; a pipe holds several times as many
    while (!g_listener_info.ended && cycle - g_listener_info.received / num_events > far_ahead) {
        kiv_thread_sleep(1000);
    }
    return !g_listener_info.ended;
}

kiv_event_group *create_group(const char *test)
{
    kiv_event_group *group = nullptr;
    if (const int32_t status = kiv_events_create_group(group_name, &group); status != KIV_OK) {
        KIV_LOG_AS(test, ERRR, "failed creating event group err=%d\n", status);
    } else {
        KIV_LOG_AS(test, INF1, "event group created, ID = %" PRIdPTR "\n", id_of(group));
    }
    return group;
}

kiv_event_item *create_item(const char *test, const char *item_name, kiv_event_group *group)
{
    kiv_event_item *item = nullptr;
    KIV_LOG_AS(test, INF1, "creating event %s\n", item_name);
    if (const int32_t status = kiv_events_create_event(item_name, nullptr, group, &item); status != KIV_OK) {
        KIV_LOG_AS(test, ERRR, "create event failed err=%d\n", status);
    } else {
        KIV_LOG_AS(test, INF1, "created event (ID=%" PRIdPTR ")\n", id_of(item));
    }
    return item;
}

void notify_item(const char *test, kiv_event_item *item, const char *text)
{
    if (const int32_t status = notify_text(item, text); status != KIV_OK) {
        KIV_LOG_AS(test, ERRR, "notify event failed err=%d\n", status);
    }
}

// @return Whether every event that could be created is enabled.
bool create_enabled_items(const char *test, kiv_event_group *group)
{
    for (int32_t index = 0; index < num_events; ++index) {
        format_name(g_listener_info.names[index], index);
        kiv_event_item *const item = create_item(test, g_listener_info.names[index], group);
        ev_item[0][index] = item;
        if (item == nullptr) {
            continue;
        }
        if (const int32_t status = kiv_events_set_enable_event(item, 1); status != KIV_OK) {
            KIV_LOG_AS(test, ERRR, "failed setting enable mode, err %d\n", status);
            return false;
        }
    }
    return true;
}

void notify_enabled_items(const char *test, int32_t iterations)
{
    int32_t number = 0;
    for (int32_t cycle = 0; cycle < iterations; ++cycle) {
        if (!wait_for_listener(cycle)) {
            KIV_LOG_AS(test, ERRR, "the listener has given up, %d cycles are not sent\n", iterations - cycle);
            return;
        }
        for (int32_t index = 0; index < num_events; ++index) {
            kiv_event_item *const item = ev_item[0][index];
            char text[text_size];
            format_text(text, item, index, cycle);
            KIV_LOG_AS(test, INF1, "calling notify for event %" PRIdPTR " (%s), %d\n", id_of(item),
                       g_listener_info.names[index], ++number);
            notify_item(test, item, text);
        }
    }
}

bool __test01(int32_t iterations)
{
    if (!create_enabled_items(__func__, create_group(__func__))) {
        return false;
    }
    if (const int error = start_listener(iterations); error != 0) {
        KIV_LOG_ERRR("failed creating listener thread err=%d\n", error);
        return false;
    }
    notify_enabled_items(__func__, iterations);
    if (pthread_join(g_listener, nullptr) != 0) {
        KIV_LOG_ERRR("failed joining listener thread 0x%lx!\n", static_cast<unsigned long>(g_listener));
        return false;
    }
    return g_listener_info.failed == 0;
}

void create_disabled_items(const char *test, char (&text)[text_size])
{
    kiv_event_group *const group = create_group(test);
    for (int32_t index = 0; index < num_events; ++index) {
        format_name(name[index], index);
        ev_item[1][index] = create_item(test, name[index], group);
        event[index] = {name[index], 0, text, sizeof text, 0};
    }
}

void notify_disabled_items(const char *test)
{
    for (int32_t cycle = 0; cycle < disabled_cycles; ++cycle) {
        for (int32_t index = 0; index < num_events; ++index) {
            char text[text_size];
            format_text(text, ev_item[1][index], index, cycle);
            notify_item(test, ev_item[1][index], text);
        }
    }
}

bool __test02()
{
    char text[text_size];
    create_disabled_items(__func__, text);
    notify_disabled_items(__func__);
    KIV_LOG_PRNT("\n");
    const int32_t status = kiv_events_wait_for(event, num_events, wait_timeout_us);
    if (status != KIV_ERR_TIMEOUT) {
        KIV_LOG_ERRR("waitfor didn't timed out it returned err %d\n", status);
        return false;
    }
    KIV_LOG_INF1("Timeout waiting for events\n");
    return true;
}

bool __create_delete_ev_group_test(int32_t count)
{
    for (int32_t cycle = 1; cycle <= count; ++cycle) {
        KIV_LOG_INF1(" ### test cycle [%d/%d]\n", cycle, count);
        kiv_event_group *const group = create_group(__func__);
        if (group == nullptr) {
            return false;
        }
        if (const int32_t status = kiv_events_delete_group(group); status != KIV_OK) {
            std::printf("delete group failed err=%d\n", status);
            return false;
        }
    }
    return true;
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

// A listener that runs on by itself and owns what it is to do.
void *listen_alone(void *argument)
{
    const std::unique_ptr<listener_info> info(static_cast<listener_info *>(argument));
    return __listener(info.get());
}

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

// A console command: carries a line out if it is its own, and says whether it was.
using console_command = bool (*)(const char *line, int &result);

constexpr console_command commands[] = {
    dump_all,       print_help,   alloc_group,    free_group, create, delete_by_id,
    delete_by_name, notify_by_id, notify_by_name, wait_for,   get_fd,
};

// @return The error of the last listener that could not be started, or 0.
int run_console()
{
    __print_interactive_help();
    std::puts("###########################################");
    int result = 0;
    char line[kiv::console_line_size];
    for (;;) {
        std::printf("<cmd>: ");
        if (!kiv::read_line(line)) {
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

void print_usage()
{
    std::puts(
        "invalid argument\n"
        "======= HELP =============\n"
        "Supported commands:\n"
        "==========================\n"
        "'-i or --interactive' \t\t\t\t: Enable interactive mode\n"
        "'-1 or --test01 <iter>' \t\t\t: Execute test01, iter represents the number of events messages\n"
        "'-2 or --test02' \t\t\t\t: Execute test02, Will be checking to ensure events are not sent if "
        "not enabled.\n"
        "'-3 or --create_delete_group <iter_count>' \t: Execute create-delete event group test "
        "<iter_count> iterations");
}

constexpr char shortOptions[] = "1:23:a:f:ic:e:d";

constexpr option longOptions[] = {
    {"test01", required_argument, nullptr, '1'},
    {"test02", no_argument, nullptr, '2'},
    {"create_delete_group", required_argument, nullptr, '3'},
    {"interactive", no_argument, nullptr, 'i'},
    {"alloc", required_argument, nullptr, 'a'},
    {"free", required_argument, nullptr, 'f'},
    {"allocfree", required_argument, nullptr, 'e'},
    {"initdeinit", no_argument, nullptr, 'd'},
    {"count", required_argument, nullptr, 'c'},
    {nullptr, 0, nullptr, 0},
};

void apply_option(int letter, int &result)
{
    switch (letter) {
    case '1':
        return print_verdict(__test01(stoi(optarg)));
    case '2':
        return print_verdict(__test02());
    case '3':
        return print_verdict(__create_delete_ev_group_test(stoi(optarg)));
    case 'i':
        result = run_console();
        return;
    default:
        return print_usage();
    }
}

void switch_simulator_on()
{
    std::puts("----------------------------\n"
              "\tsimulator on\n"
              "----------------------------");
    kiv_events_deinit();
    kiv_events_set_simulator_mode(1);
    kiv_events_init();
}

} // namespace

int test_events(int argc, char **argv, unsigned testFlags)
{
    std::puts("###########################################\n"
              "\t\t EVENTS TEST MENU\n"
              "###########################################");
    if ((testFlags & KIV_TEST_FLAG_SIMULATOR) != 0) {
        switch_simulator_on();
    }
    int result = 0;
    int letter = 0;
    do {
        letter = getopt_long(argc, argv, shortOptions, longOptions, nullptr);
        std::printf("param [%2d / %2d] is '%c' (%d)\n", optind, argc, letter, letter);
        apply_option(letter, result);
    } while (letter != -1 && optind != argc);
    return result;
}
