/*
 * A console for the events that the boards of a fleet share; events_mqtt.c carries them.
 *
 *     events_console --board kitchen --event door --publish heat
 *
 * A line "EVENT PAYLOAD" of standard input notifies an event, and each notification is printed as such a line.
 * Bytes that are no plain characters are written as "\x00". SIGTERM or Ctrl-C ends the program.
 */
#define _POSIX_C_SOURCE 200809L
#include <ctype.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <zol/zol.h>

#include "events_mqtt.h"

enum { EVENTS = 4, PAYLOAD = 65536, LINE = 8192 };

static char host_name[64];
static struct fleet fleet = {"localhost", 1883, NULL, "zol", host_name, 1000};
static const char *configuration = "Conf/kiv_test.xml";
static struct {
    const char *name;
    int directions;
    char payload[PAYLOAD]; /* the newest */
} events[EVENTS];
static uint32_t event_count;

/* Notifications are printed on a thread of their own, so that the other threads can notify at any time. */

static void print(const kiv_event_wait_entry *entry)
{
    const unsigned char *payload = entry->p_data;
    flockfile(stdout);
    printf(entry->actual_sz > 0 ? "%s " : "%s", entry->pname);
    for (uint32_t i = 0; i < entry->actual_sz; i++)
        printf(isprint(payload[i]) && payload[i] != '\\' ? "%c" : "\\x%02x", payload[i]);
    putchar('\n');
    if (fflush(stdout) != 0)
        kill(getpid(), SIGTERM); /* there is no reader any more */
    funlockfile(stdout);
}

static int32_t print_all(kiv_thread *worker, kiv_message *message)
{
    (void)worker;
    kiv_event_wait_entry entries[EVENTS + 1] = {{"/stop", 0, NULL, 0, 0}};
    for (uint32_t i = 0; i < event_count; i++)
        entries[i + 1] = (kiv_event_wait_entry){events[i].name, 0, events[i].payload, PAYLOAD, 0};
    while (message->msgId == 100 && kiv_events_wait_for(entries, event_count + 1, 0) == KIV_OK &&
           !entries[0].fired)
        for (uint32_t i = 1; i <= event_count; i++) {
            if (entries[i].fired)
                print(&entries[i]);
            entries[i].fired = 0;
        }
    return 0;
}

/* Replaces each "\x00" by its byte. */
static uint32_t unescape(char *text, const char *end)
{
    char *to = text;
    for (const char *from = text; from < end; to++)
        if (from[0] == '\\' && from[1] == 'x' && isxdigit(from[2]) && isxdigit(from[3])) {
            *to = (char)strtoul((char[]){from[2], from[3], 0}, NULL, 16);
            from += 4;
        } else {
            *to = *from++;
        }
    return (uint32_t)(to - text);
}

static void take_line(char *line, char *end)
{
    *end = 0;
    char *payload = line + strcspn(line, " ");
    if (payload < end)
        *payload++ = 0;
    for (uint32_t i = 0; i < event_count; i++)
        if (strcmp(line, events[i].name) == 0) {
            kiv_events_notify_by_name(line, payload, unescape(payload, end), 0);
            return;
        }
    fprintf(stderr, "events_console: '%s' is no event of this board\n", line);
}

/* Takes the lines that have come. Returns 0 at the end of the input. */
static int take_input(void)
{
    static char input[LINE + 1];
    static size_t length;
    ssize_t count = read(STDIN_FILENO, input + length, LINE - length);
    length += count > 0 ? (size_t)count : 0;
    char *line = input, *end;
    while ((end = memchr(line, '\n', length - (size_t)(line - input))) != NULL) {
        take_line(line, end);
        line = end + 1;
    }
    length -= (size_t)(line - input);
    for (size_t i = 0; i < length; i++) /* the begin of the next line */
        input[i] = line[i];
    if (length == LINE)
        fprintf(stderr, "events_console: a line is longer than %d characters: the input ends\n", LINE - 1);
    else if (count <= 0 && length > 0)
        take_line(input, input + length);
    return count > 0 && length < LINE;
}

/* Goes on after the end of the input, as a service does. */
static void converse(int signals)
{
    struct pollfd fds[] = {{signals, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    while (poll(fds, 2, -1) >= 0 && fds[0].revents == 0)
        if (fds[1].revents != 0 && !take_input())
            fds[1].fd = -1;
}

static int start_printer(kiv_thread *printer, kiv_event_group **group, kiv_event_item **stop)
{
    if (kiv_events_create_group("console", group) != KIV_OK ||
        kiv_events_create_event("/stop", NULL, *group, stop) != KIV_OK ||
        kiv_events_set_enable_event(*stop, 1) != KIV_OK)
        return 1;
    kiv_message *start = kiv_message_new(100, 0);
    if (start == NULL || kiv_thread_create_default(printer, "printer", print_all, NULL) != KIV_OK ||
        kiv_thread_sendMsg(printer, start) != KIV_OK) {
        kiv_message_free(start);
        return 1;
    }
    return 0;
}

static int run(int signals)
{
    kiv_event_group *group = NULL;
    kiv_event_item *stop = NULL;
    kiv_thread printer = {0};
    int failed = 0;
    for (uint32_t i = 0; i < event_count && !failed; i++)
        failed = fleet_share(events[i].name, events[i].directions) != KIV_OK;
    failed = failed || start_printer(&printer, &group, &stop) || fleet_join(&fleet) != KIV_OK;
    if (!failed)
        converse(signals);
    kiv_events_notify(stop, NULL, 0, 0);
    kiv_thread_stop(&printer);
    kiv_thread_delete(&printer);
    fleet_leave();
    kiv_events_delete_event(stop);
    kiv_events_delete_group(group);
    return failed;
}

static void usage(FILE *stream, int status)
{
    fprintf(stream,
            "usage: events_console [OPTION...] --event NAME...\n\n"
            "A line \"EVENT PAYLOAD\" notifies. Ctrl-C or SIGTERM ends it, the end of the input does not.\n\n"
            "  --event NAME      shares this event with other boards; up to %d events\n"
            "  --publish NAME    sends it, but does not hear other boards\n"
            "  --subscribe NAME  hears it from other boards, but does not send it\n"
            "  --host NAME       of the broker (localhost)\n"
            "  --port NUMBER     of the broker (1883)\n"
            "  --cafile FILE     certificates of its authority: the connection uses TLS\n"
            "  --prefix TEXT     of the topics PREFIX/BOARD/EVENT (zol)\n"
            "  --board NAME      of this board, unlike all others (its host name)\n"
            "  --backlog COUNT   of events that may wait for the broker (1000)\n"
            "  --conf FILE       configuration of libzol (Conf/kiv_test.xml)\n",
            EVENTS);
    exit(status);
}

static int number(const char *option, int most)
{
    char *end;
    long value = strtol(optarg, &end, 10);
    if (*end == 0 && value >= 1 && value <= most)
        return (int)value;
    fprintf(stderr, "events_console: %s is '%s'; use 1 to %d\n", option, optarg, most);
    exit(2);
}

static void add_event(int directions)
{
    uint32_t i = 0;
    while (i < event_count && strcmp(events[i].name, optarg) != 0)
        i++;
    if (i == EVENTS)
        usage(stderr, 2);
    events[i].name = optarg;
    events[i].directions |= directions;
    event_count += i == event_count;
}

static void read_options(int argc, char **argv)
{
    static const struct option options[] = {
        {"event", 1, NULL, 'e'},  {"publish", 1, NULL, 'u'}, {"subscribe", 1, NULL, 's'},
        {"host", 1, NULL, 'h'},   {"port", 1, NULL, 'p'},    {"cafile", 1, NULL, 'c'},
        {"prefix", 1, NULL, 't'}, {"board", 1, NULL, 'b'},   {"backlog", 1, NULL, 'l'},
        {"conf", 1, NULL, 'f'},   {"help", 0, NULL, 'H'},    {NULL, 0, NULL, 0}};
    for (int option; (option = getopt_long(argc, argv, "", options, NULL)) != -1;)
        switch (option) {
        case 'e':
            add_event(FLEET_PUBLISH | FLEET_SUBSCRIBE);
            break;
        case 'u':
            add_event(FLEET_PUBLISH);
            break;
        case 's':
            add_event(FLEET_SUBSCRIBE);
            break;
        case 'h':
            fleet.host = optarg;
            break;
        case 'p':
            fleet.port = number("--port", 65535);
            break;
        case 'c':
            fleet.cafile = optarg;
            break;
        case 't':
            fleet.prefix = optarg;
            break;
        case 'b':
            fleet.board = optarg;
            break;
        case 'l':
            fleet.backlog = number("--backlog", 1000000);
            break;
        case 'f':
            configuration = optarg;
            break;
        case 'H':
            usage(stdout, 0);
            break;
        default:
            usage(stderr, 2);
        }
    if (optind < argc || event_count == 0)
        usage(stderr, 2);
}

int main(int argc, char **argv)
{
    gethostname(host_name, sizeof host_name - 1);
    read_options(argc, argv);
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    sigprocmask(SIG_BLOCK, &ending, NULL); /* for the threads too, so that only the descriptor gets them */
    signal(SIGPIPE, SIG_IGN);
    int signals = signalfd(-1, &ending, SFD_CLOEXEC);
    if (signals < 0 || zol_init(configuration) != KIV_OK)
        return 1;
    int failed = run(signals);
    zol_deinit();
    close(signals);
    return failed;
}
