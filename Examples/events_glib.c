/*
 * An event in a GLib main loop: g_unix_fd_add() watches its descriptor, and the callback takes one record
 * each time. Here another thread counts down, and the loop ends at zero.
 *
 *     events_glib [CONFIGURATION]
 */
#include <glib-unix.h>
#include <stdio.h>
#include <unistd.h>
#include <zol/zol.h>

static kiv_event_item *countdown;
static GMainLoop *loop;
static int result = 1;

static gpointer count_down(gpointer unused)
{
    for (int i = 3; i >= 0; i--)
        kiv_events_notify(countdown, &i, sizeof i, 0);
    return unused;
}

static gboolean on_record(gint fd, GIOCondition condition, gpointer unused)
{
    (void)condition;
    (void)unused;
    struct {
        uint32_t magic;
        uint32_t size;
        int count;
    } record;
    /* All records of this event are alike and far below PIPE_BUF, so one read() takes one record. */
    if (read(fd, &record, sizeof record) != sizeof record || record.magic != 0xDEADBEEF) {
        g_main_loop_quit(loop);
        return G_SOURCE_REMOVE;
    }
    printf("%d\n", record.count);
    if (record.count > 0)
        return G_SOURCE_CONTINUE;
    result = 0;
    g_main_loop_quit(loop);
    return G_SOURCE_REMOVE;
}

int main(int argc, char **argv)
{
    if (zol_init(argc > 1 ? argv[1] : "Conf/kiv_test.xml") != KIV_OK)
        return 1;
    kiv_event_group *group = NULL;
    int32_t fd = -1;
    if (kiv_events_create_group("example", &group) == KIV_OK &&
        kiv_events_create_event("countdown", NULL, group, &countdown) == KIV_OK &&
        kiv_events_set_enable_event(countdown, 1) == KIV_OK &&
        kiv_events_get_event_fd("countdown", &fd) == KIV_OK) {
        loop = g_main_loop_new(NULL, FALSE);
        g_unix_fd_add(fd, G_IO_IN, on_record, NULL);
        GThread *thread = g_thread_new("countdown", count_down, NULL);
        g_main_loop_run(loop);
        g_thread_join(thread);
        g_main_loop_unref(loop);
        kiv_events_delete_event(countdown);
    }
    kiv_events_delete_group(group);
    zol_deinit();
    return result;
}
