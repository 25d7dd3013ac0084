/*
 * Events in an application's own poll() loop: a worker notifies of its sensors' values, and the main
 * loop reads the records from the events' descriptors. It could poll sockets and terminals as well.
 *
 *     events_poll [CONFIGURATION]
 */
#include <poll.h>
#include <stdio.h>
#include <unistd.h>
#include <zol/zol.h>

enum { DOOR, TEMPERATURE, SENSORS };

static const char *const names[SENSORS] = {"door", "temperature"};
static kiv_event_item *events[SENSORS];

static int32_t watch_sensors(kiv_thread *worker, kiv_message *message)
{
    (void)worker;
    if (message->msgId != 100)
        return 0;
    kiv_events_notify(events[DOOR], "open", sizeof "open", 0);
    for (int celsius = 21; celsius <= 23; celsius++)
        kiv_events_notify(events[TEMPERATURE], &celsius, sizeof celsius, 0);
    kiv_events_notify(events[DOOR], "closed", sizeof "closed", 0);
    return 0;
}

/* A record is two numbers and the payload. It is far below PIPE_BUF, so the payload arrives with the numbers. */
static int read_record(int fd, void *payload, uint32_t room)
{
    uint32_t header[2];
    if (read(fd, header, sizeof header) != sizeof header || header[0] != 0xDEADBEEF || header[1] > room)
        return -1;
    return read(fd, payload, header[1]) == (ssize_t)header[1] ? 0 : -1;
}

static int show(int sensor, int fd)
{
    union {
        char text[16];
        int celsius;
    } payload;
    if (read_record(fd, &payload, sizeof payload) != 0)
        return -1;
    if (sensor == DOOR)
        printf("door: %s\n", payload.text);
    else
        printf("temperature: %d\n", payload.celsius);
    return 0;
}

static int run_loop(int records)
{
    struct pollfd fds[SENSORS] = {{-1, POLLIN, 0}, {-1, POLLIN, 0}};
    for (int i = 0; i < SENSORS; i++)
        if (kiv_events_get_event_fd(names[i], &fds[i].fd) != KIV_OK)
            return 1;
    while (records > 0) {
        if (poll(fds, SENSORS, 5000) <= 0)
            return 1;
        for (int i = 0; i < SENSORS; i++)
            if ((fds[i].revents & POLLIN) && records-- > 0 && show(i, fds[i].fd) != 0)
                return 1;
    }
    return 0;
}

int main(int argc, char **argv)
{
    if (zol_init(argc > 1 ? argv[1] : "Conf/kiv_test.xml") != KIV_OK)
        return 1;
    kiv_event_group *group = NULL;
    int failed = kiv_events_create_group("sensors", &group) != KIV_OK;
    for (int i = 0; i < SENSORS && !failed; i++)
        failed = kiv_events_create_event(names[i], NULL, group, &events[i]) != KIV_OK ||
                 kiv_events_set_enable_event(events[i], 1) != KIV_OK;

    kiv_thread worker;
    kiv_message *start = kiv_message_new(100, 0);
    if (!failed && start != NULL &&
        kiv_thread_create_default(&worker, "sensors", watch_sensors, NULL) == KIV_OK &&
        kiv_thread_sendMsg(&worker, start) == KIV_OK) {
        failed = run_loop(5);
        kiv_thread_stop(&worker);
        kiv_thread_delete(&worker);
    }
    for (int i = 0; i < SENSORS; i++)
        kiv_events_delete_event(events[i]);
    kiv_events_delete_group(group);
    zol_deinit();
    return failed;
}
