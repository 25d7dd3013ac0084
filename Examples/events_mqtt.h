/*
 * Named events that the boards of a fleet share through an MQTT broker: see events_mqtt.c. Applications use them
 * like all events: any thread may notify them and wait for them.
 */
#ifndef EVENTS_MQTT_H
#define EVENTS_MQTT_H

enum { FLEET_PUBLISH = 1, FLEET_SUBSCRIBE = 2 };

struct fleet {
    const char *host;   /* of the broker */
    int port;           /* 1883, with TLS usually 8883 */
    const char *cafile; /* the certificates of its authority, for TLS; or null */
    const char *prefix; /* of the topics PREFIX/BOARD/EVENT */
    const char *board;  /* this board's name, unlike all others */
    int backlog;        /* how many events may wait for the broker */
};

/* Makes an event that is published, subscribed to, or both. Returns a status like KIV_OK. Call it after zol_init()
   and before fleet_join(). */
int fleet_share(const char *event, int directions);

/* Connects to the broker, which may be away. The texts must last. Returns a status. */
int fleet_join(const struct fleet *fleet);

/* Gives what was notified 2 seconds to leave, disconnects, and deletes the events. Other threads have stopped to
   notify them. */
void fleet_leave(void);

#endif
