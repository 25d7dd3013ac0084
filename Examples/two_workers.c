/*
 * Two workers and their messages, with every step in a timing log: the first worker prepares a message,
 * passes it to the second, and waits until that one has finished. Meanwhile more messages arrive.
 *
 *     kivboard run -- sh -c 'two_workers && zol_timing /var/log/zol/two_workers.csv'
 */
#include <stdio.h>
#include <zol/zol.h>

enum { SEND = 1, PREPARE, PASS_ON, FINISH };

static kiv_tl_map_entry lanes[] = {
    {SEND, "send", 0, {0, 0}},     {PREPARE, "prepare", 0, {0, 0}}, {PASS_ON, "pass on", 0, {0, 0}},
    {FINISH, "finish", 0, {0, 0}}, {-1, NULL, 0, {0, 0}},
};

static kiv_tl_ctx *timing;
static kiv_thread preparer;
static kiv_thread finisher;

static int send_to(kiv_thread *worker, int is_sync)
{
    kiv_message *message = kiv_message_new(100, 0);
    if (message == NULL)
        return -1;
    message->isSync = is_sync;
    if (kiv_thread_sendMsg(worker, message) == KIV_OK)
        return 0;
    kiv_message_free(message);
    return -1;
}

static int32_t finish(kiv_thread *worker, kiv_message *message)
{
    (void)worker;
    if (message->msgId == 100) {
        kiv_tl(timing, FINISH, KIV_TL_HIGH, NULL);
        kiv_thread_sleep(3000);
        kiv_tl(timing, FINISH, KIV_TL_LOW, NULL);
    }
    return 0;
}

static int32_t prepare(kiv_thread *worker, kiv_message *message)
{
    (void)worker;
    if (message->msgId == 100) {
        kiv_tl(timing, PREPARE, KIV_TL_HIGH, NULL);
        kiv_thread_sleep(2000);
        kiv_tl(timing, PREPARE, KIV_TL_LOW, NULL);
        kiv_tl(timing, PASS_ON, KIV_TL_HIGH, NULL);
        send_to(&finisher, 1);
        kiv_tl(timing, PASS_ON, KIV_TL_LOW, NULL);
    }
    return 0;
}

int main(int argc, char **argv)
{
    if (zol_init(argc > 1 ? argv[1] : "Conf/kiv_test.xml") != KIV_OK)
        return 1;
    timing = kiv_tl_init("two_workers", lanes);
    if (timing == NULL || kiv_thread_create_default(&finisher, "finisher", finish, NULL) != KIV_OK ||
        kiv_thread_create_default(&preparer, "preparer", prepare, NULL) != KIV_OK)
        return 1;

    int failed = 0;
    for (int i = 0; i < 6; i++) {
        kiv_tl(timing, SEND, KIV_TL_PULSE, "number %d", i);
        failed |= send_to(&preparer, 0);
        kiv_thread_sleep(i < 3 ? 7000 : 1500);
    }
    kiv_thread_stop(&preparer); /* after the messages that it has already */
    kiv_thread_stop(&finisher);
    kiv_thread_delete(&preparer);
    kiv_thread_delete(&finisher);
    kiv_tl_deinit(timing);
    zol_deinit();
    puts(failed ? "some messages were not taken" : "all messages were handled");
    return failed ? 1 : 0;
}
