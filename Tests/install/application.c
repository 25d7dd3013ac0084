/* An application as a user of the installed library writes it; valid C11 and C++20. Started with the
 * configuration that comes with the tool, it uses what needs GLib, libxml2 and the threads behind the
 * library. */
#include <stdio.h>
#include <string.h>
#include <zol/zol.h>

static int32_t handle(kiv_thread *worker, kiv_message *message)
{
    *(int32_t *)worker->userData += message->msgId;
    return 0;
}

static int32_t send_hundred(int32_t *sum)
{
    kiv_thread worker;
    int32_t status = kiv_thread_create_default(&worker, "worker", handle, sum);
    if (status != KIV_OK)
        return status;
    kiv_message *message = kiv_message_new(100, 0);
    status = kiv_thread_sendMsg(&worker, message);
    if (kiv_thread_stop(&worker) != KIV_OK || kiv_thread_delete(&worker) != KIV_OK)
        return KIV_ERR_STATE;
    return status;
}

int main(int argc, char **argv)
{
    int32_t sum = 0;
    char version[6] = "";
    char name[64] = "";
    if (argc != 2 || zol_init(argv[1]) != KIV_OK)
        return 1;
    kiv_get_version(version);
    kiv_config_get_param("general", "", "configName", name, sizeof name);
    const int32_t status = send_hundred(&sum);
    KIV_LOG_PRNT("%s, %s\n", version, name);
    if (zol_deinit() != KIV_OK || status != KIV_OK)
        return 1;
    printf("version %s, configuration %s, messages %d\n", version, name, (int)sum);
    return strcmp(name, "kiv_test") == 0 && sum >= 100 ? 0 : 1;
}
