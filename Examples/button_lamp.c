/*
 * From an interrupt to an output: each press of the button on pin 17 posts an event; a worker waits for it,
 * asks the sensor over I2C, and switches the lamp on pin 5. Every step is a lane of a timing log.
 *
 *     kivboard run -- sh -c 'button_lamp & for press in 1 2 3; do sleep 1; kivboard raise 17; done; wait'
 */
#include <stdio.h>
#include <zol/zol.h>

enum { BUTTON = 17, LAMP = 5, PRESSES = 3 };
enum { INTERRUPT = 1, WAIT, READ, LIGHT };

static kiv_tl_map_entry lanes[] = {
    {INTERRUPT, "interrupt", 0, {0, 0}},
    {WAIT, "wait for event", 0, {0, 0}},
    {READ, "read sensor", 0, {0, 0}},
    {LIGHT, "lamp", 0, {0, 0}},
    {-1, NULL, 0, {0, 0}},
};
static kiv_tl_ctx *timing;
static kiv_event_item *pressed;

static int on_press(int32_t gpio, uintptr_t count) /* on the listener's thread: short */
{
    int press = ++*(int *)count;
    kiv_tl(timing, INTERRUPT, KIV_TL_PULSE, "pin %d", gpio);
    return kiv_events_notify(pressed, &press, sizeof press, 0);
}

static int32_t serve(kiv_thread *worker, kiv_message *message) /* on the worker's */
{
    (void)worker;
    for (int lamp = 1; message->msgId == 100; lamp = !lamp) {
        int press = 0;
        kiv_event_wait_entry entry = {"pressed", 0, &press, sizeof press, 0};
        kiv_tl(timing, WAIT, KIV_TL_HIGH, NULL);
        if (kiv_events_wait_for(&entry, 1, 10000000) != KIV_OK)
            break;
        kiv_tl(timing, WAIT, KIV_TL_LOW, "press %d", press);

        kiv_i2c_handle sensor;
        uint8_t value = 0;
        kiv_tl(timing, READ, KIV_TL_HIGH, NULL);
        if (kiv_i2c_open(&sensor, 4, 0x18) == KIV_OK)
            kiv_i2c_read_reg8(&sensor, 0x0f, 1, &value);
        kiv_i2c_close(&sensor);
        kiv_tl(timing, READ, KIV_TL_LOW, "0x%02x", value);

        kiv_gpio_set(LAMP, lamp);
        kiv_tl(timing, LIGHT, lamp ? KIV_TL_HIGH : KIV_TL_LOW, NULL);
        printf("press %d: the sensor says 0x%02x, the lamp is %s\n", press, value, lamp ? "on" : "off");
        if (press >= PRESSES)
            break;
    }
    return 0;
}

int main(int argc, char **argv)
{
    int presses = 0;
    kiv_event_group *group = NULL;
    kiv_thread worker = {0};
    kiv_message *start = kiv_message_new(100, 0);
    if (start == NULL || zol_init(argc > 1 ? argv[1] : "Conf/kiv_test.xml") != KIV_OK)
        return 1;
    timing = kiv_tl_init("button_lamp", lanes);
    if (timing == NULL || kiv_events_create_group("button_lamp", &group) != KIV_OK ||
        kiv_events_create_event("pressed", NULL, group, &pressed) != KIV_OK ||
        kiv_events_set_enable_event(pressed, 1) != KIV_OK || kiv_gpio_request(LAMP, "lamp") != KIV_OK ||
        kiv_gpio_request(BUTTON, "button") != KIV_OK ||
        kiv_thread_create_default(&worker, "worker", serve, NULL) != KIV_OK ||
        kiv_gpio_register_callback(BUTTON, KIV_GPIO_EDGE, KIV_GPIO_EDGE_RISING, 0, on_press,
                                   (uintptr_t)&presses))
        return 1;

    start->isSync = 1; /* so this returns when the worker has served its last press */
    kiv_thread_sendMsg(&worker, start);

    kiv_gpio_unregister_callback(BUTTON);
    kiv_gpio_free(BUTTON);
    kiv_gpio_free(LAMP);
    kiv_thread_stop(&worker);
    kiv_thread_delete(&worker);
    kiv_events_delete_event(pressed);
    kiv_events_delete_group(group);
    kiv_tl_deinit(timing);
    zol_deinit();
    return presses >= PRESSES ? 0 : 1;
}
