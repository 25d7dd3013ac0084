/*
 * The time of some calls in C, for python_calls.py, which makes the same calls in Python: a line with the name and the
 * nanoseconds of each, the fastest of some repetitions.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdint.h>
#include <stdio.h>
#include <time.h>
#include <zol/zol.h>

enum { REPETITIONS = 10, CALLS = 1000, PIN = 5 };

static kiv_event_item *event;
static kiv_i2c_handle sensor;
static volatile int32_t seen;

static void parse(void)
{
    int32_t number = 0;
    kiv_atoi("42", &number);
    seen = number;
}

static void pass_event(void)
{
    char payload[4096];
    kiv_event_wait_entry entry = {"calls", 0, payload, sizeof payload, 0};
    kiv_events_notify(event, "payload", 7, 0);
    seen = kiv_events_wait_for(&entry, 1, 0);
}

static void read_level(void)
{
    int level = 0;
    kiv_gpio_get(PIN, &level);
    seen = level;
}

static void read_register(void)
{
    uint8_t value = 0;
    kiv_i2c_read_reg8(&sensor, 0x0f, 1, &value);
    seen = value;
}

static double now_ns(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e9 + (double)now.tv_nsec;
}

static double fastest(void (*call)(void))
{
    double best = 1e12;
    for (int repetition = 0; repetition < REPETITIONS; ++repetition) {
        const double begun = now_ns();
        for (int i = 0; i < CALLS; ++i)
            call();
        const double taken = (now_ns() - begun) / CALLS;
        best = taken < best ? taken : best;
    }
    return best;
}

int main(int argc, char **argv)
{
    kiv_event_group *group = NULL;
    if (argc < 2 || zol_init(argv[1]) != KIV_OK || kiv_events_create_group("bench", &group) != KIV_OK ||
        kiv_events_create_event("calls", NULL, group, &event) != KIV_OK ||
        kiv_events_set_enable_event(event, 1) != KIV_OK || kiv_gpio_request(PIN, "bench") != KIV_OK ||
        kiv_i2c_open(&sensor, 4, 0x18) != KIV_OK)
        return 1;
    g_debugLevel = 1;
    printf("kiv_atoi %.1f\nkiv_events_notify+wait_for %.1f\n", fastest(parse), fastest(pass_event));
    printf("kiv_gpio_get %.1f\nkiv_i2c_read_reg8 %.1f\n", fastest(read_level), fastest(read_register));
    return seen < 0;
}
