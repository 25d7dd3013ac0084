/*
 * Boards of a fleet hear each other's events through an MQTT broker. A notification on this board is published
 * as PREFIX/BOARD/EVENT, its payload as it is. The events of that name on other boards are notified here.
 *
 * Messages have QoS 1: one that the network lost is sent again, and so may arrive twice. While the broker is
 * away they wait in a backlog of limited size; those that find it full are dropped, counted and logged.
 * An event that came from the broker is not published again.
 *
 * A lost connection is tried again after 1, 2, 4, 8 and 16 seconds, and then every 30. A broker that is restarted
 * keeps the messages for absent boards if its configuration has "persistence true", as Debian's has.
 *
 * An application adds this file; events_console.c is such a one.
 */
#include "events_mqtt.h"

#include <mosquitto.h>
#include <stdatomic.h>
#include <string.h>
#include <zol/zol.h>

enum { CHANNELS = 4, PAYLOAD = 65536, NAME = 64, TOPIC = 256 };
enum { HERE, BROKER }; /* the origin of a notification, its fourth argument */

static struct channel {
    char name[NAME];
    int directions;
    kiv_event_item *event;
    char topic[TOPIC];  /* of this board */
    char filter[TOPIC]; /* of all boards */
} channels[CHANNELS];
static int channel_count;

static struct fleet fleet;
static struct mosquitto *client;
static kiv_event_group *group;
static kiv_thread worker;
static int delay = 1; /* seconds until the next attempt to connect */
static atomic_bool connected, leaving;
static atomic_int backlog; /* messages that the broker has not acknowledged */
static atomic_uint published, received, dropped, dropped_in_a_row;

/* To the broker. */

static int is_room(void)
{
    if (atomic_fetch_add(&backlog, 1) < fleet.backlog)
        return 1;
    atomic_fetch_sub(&backlog, 1);
    if (atomic_fetch_add(&dropped_in_a_row, 1) == 0)
        KIV_LOG_ERRR("the backlog of %d events is full, more are dropped\n", fleet.backlog);
    return 0;
}

static void publish(const struct channel *channel, const void *payload, uint32_t size)
{
    if (!is_room()) {
        atomic_fetch_add(&dropped, 1);
        return;
    }
    int error = MOSQ_ERR_PAYLOAD_SIZE;
    if (size <= PAYLOAD)
        error = mosquitto_publish(client, NULL, channel->topic, (int)size, payload, 1, false);
    if (error == MOSQ_ERR_SUCCESS ||
        error == MOSQ_ERR_NO_CONN) { /* it is queued, even without a connection */
        atomic_fetch_add(&published, 1);
        return;
    }
    KIV_LOG_ERRR("%s: %u bytes are not published: %s\n", channel->name, size, mosquitto_strerror(error));
    atomic_fetch_sub(&backlog, 1);
    atomic_fetch_add(&dropped, 1);
}

static void on_acknowledged(struct mosquitto *broker, void *unused, int message)
{
    (void)broker, (void)unused, (void)message;
    if (atomic_fetch_sub(&backlog, 1) > 1)
        return;
    unsigned lost = atomic_exchange(&dropped_in_a_row, 0);
    if (lost > 0)
        KIV_LOG_ERRR("%u events were dropped while the backlog was full\n", lost);
}

/* The callback of an event sees its notifications first. It is not told its event, so each event has its own.
   What came from the broker is not published again: there is no loop. */
#define CALLBACK(index)                                                                                      \
    static int32_t on_notified_##index(void *last, const void *payload, uint32_t size, uint32_t origin)      \
    {                                                                                                        \
        (void)last;                                                                                          \
        if (origin != BROKER && client != NULL && (channels[index].directions & FLEET_PUBLISH))              \
            publish(&channels[index], payload, size);                                                        \
        return 1; /* this board's own waiters hear it too */                                                 \
    }
CALLBACK(0)
CALLBACK(1)
CALLBACK(2)
CALLBACK(3)
static const kiv_events_notify_cb callbacks[CHANNELS] = {on_notified_0, on_notified_1, on_notified_2,
                                                         on_notified_3};

/* From the broker, on the worker. */

static void on_message(struct mosquitto *broker, void *unused, const struct mosquitto_message *message)
{
    (void)broker, (void)unused;
    for (const struct channel *channel = channels; channel < channels + channel_count; channel++) {
        bool matches = false;
        mosquitto_topic_matches_sub(channel->filter, message->topic, &matches);
        int is_own = strcmp(message->topic, channel->topic) == 0; /* a broker answers the sender as well */
        if (!matches || is_own || message->retain || !(channel->directions & FLEET_SUBSCRIBE))
            continue;
        atomic_fetch_add(&received, 1);
        kiv_events_notify(channel->event, message->payload, (uint32_t)message->payloadlen, BROKER);
    }
}

static void on_connect(struct mosquitto *broker, void *unused, int refusal)
{
    (void)unused;
    if (refusal != 0) {
        KIV_LOG_ERRR("the broker refuses this board: %s\n", mosquitto_connack_string(refusal));
        return;
    }
    for (int i = 0; i < channel_count; i++) /* each time, because a broker may have lost its memory */
        if (channels[i].directions & FLEET_SUBSCRIBE)
            mosquitto_subscribe(broker, NULL, channels[i].filter, 1);
    atomic_store(&connected, true);
    delay = 1;
    KIV_LOG_PRNT("connected to %s:%d as %s/%s\n", fleet.host, fleet.port, fleet.prefix, fleet.board);
}

static void on_disconnect(struct mosquitto *broker, void *unused, int reason)
{
    (void)broker, (void)unused;
    if (atomic_exchange(&connected, false) && reason != 0)
        KIV_LOG_ERRR("the connection is lost: %s\n", mosquitto_strerror(reason));
}

/* Tries again after 1, 2, 4, 8 and 16 seconds, and then every 30. */
static int32_t serve(kiv_thread *self, kiv_message *message)
{
    (void)self;
    while (message->msgId == 100 && !atomic_load(&leaving)) {
        if (mosquitto_loop(client, 1000, 1) == MOSQ_ERR_SUCCESS)
            continue;
        for (int i = 0; i < 20 * delay && !atomic_load(&leaving); i++)
            kiv_thread_sleep(50000);
        delay = delay < 16 ? 2 * delay : 30;
        mosquitto_reconnect_async(client);
    }
    return 0;
}

/* The broker knows a board again by its name, and keeps for it what it missed. */
static int make_client(void)
{
    char session[TOPIC];
    kiv_snprintf(session, sizeof session, "%s/%s", fleet.prefix, fleet.board);
    client = mosquitto_new(session, false, NULL);
    if (client == NULL)
        return KIV_ERR_NO_MEMORY;
    mosquitto_threaded_set(client, true);
    mosquitto_connect_callback_set(client, on_connect);
    mosquitto_disconnect_callback_set(client, on_disconnect);
    mosquitto_publish_callback_set(client, on_acknowledged);
    mosquitto_message_callback_set(client, on_message);
    /* Here is also the place for mosquitto_username_pw_set(). */
    if (fleet.cafile == NULL || mosquitto_tls_set(client, fleet.cafile, NULL, NULL, NULL, NULL) == 0)
        return KIV_OK;
    KIV_LOG_ERRR("%s: no certificates\n", fleet.cafile);
    return KIV_ERR_OPEN;
}

/* The board and the event are single levels of a topic. */
static int name_topic(struct channel *channel)
{
    if (*fleet.board != 0 && strpbrk(fleet.board, "/ ") == NULL &&
        kiv_snprintf(channel->topic, TOPIC, "%s/%s/%s", fleet.prefix, fleet.board, channel->name) == KIV_OK &&
        kiv_snprintf(channel->filter, TOPIC, "%s/+/%s", fleet.prefix, channel->name) == KIV_OK &&
        mosquitto_pub_topic_check(channel->topic) == MOSQ_ERR_SUCCESS)
        return KIV_OK;
    KIV_LOG_ERRR("%s/%s/%s is no topic\n", fleet.prefix, fleet.board, channel->name);
    return KIV_ERR_INVALID_PARAM;
}

int fleet_share(const char *event, int directions)
{
    struct channel *channel = &channels[channel_count];
    if (channel_count == CHANNELS || *event == 0 || strlen(event) >= NAME || strpbrk(event, "/ ") != NULL) {
        KIV_LOG_ERRR("'%s' is no name, or there are more than %d events\n", event, CHANNELS);
        return KIV_ERR_INVALID_PARAM;
    }
    kiv_snprintf(channel->name, NAME, "%s", event);
    channel->directions = directions;
    int32_t status = group != NULL ? KIV_OK : kiv_events_create_group("fleet", &group);
    if (status == KIV_OK)
        status = kiv_events_create_event(event, callbacks[channel_count], group, &channel->event);
    if (status != KIV_OK)
        return status;
    channel_count++;
    return kiv_events_set_enable_event(channel->event, 1);
}

int fleet_join(const struct fleet *options)
{
    fleet = *options;
    for (int i = 0; i < channel_count; i++)
        if (name_topic(&channels[i]) != KIV_OK)
            return KIV_ERR_INVALID_PARAM;
    mosquitto_lib_init();
    int status = make_client();
    if (status != KIV_OK)
        return status;
    if (mosquitto_connect_async(client, fleet.host, fleet.port, 15) != MOSQ_ERR_SUCCESS)
        KIV_LOG_ERRR("there is no broker at %s:%d yet\n", fleet.host, fleet.port);
    kiv_message *start = kiv_message_new(100, 0);
    status = start == NULL ? KIV_ERR_NO_MEMORY : kiv_thread_create_default(&worker, "fleet", serve, NULL);
    if (status == KIV_OK)
        return kiv_thread_sendMsg(&worker, start);
    kiv_message_free(start);
    return status;
}

void fleet_leave(void)
{
    for (int i = 0; i < 200 && atomic_load(&backlog) > 0 && atomic_load(&connected); i++)
        kiv_thread_sleep(10000);
    atomic_store(&leaving, true);
    mosquitto_disconnect(client);
    for (int i = 0; i < channel_count; i++) /* this ends a notification that waits for a reader */
        kiv_events_delete_event(channels[i].event);
    kiv_thread_stop(&worker);
    kiv_thread_delete(&worker);
    mosquitto_destroy(client);
    mosquitto_lib_cleanup();
    kiv_events_delete_group(group);
    KIV_LOG_PRNT("published %u, received %u, dropped %u, left behind %d\n", atomic_load(&published),
                 atomic_load(&received), atomic_load(&dropped), atomic_load(&backlog));
}
