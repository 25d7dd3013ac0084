// The life of one event: its pipe, and the end of the calls that use it when it is deleted.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "cancellation.h"
#include "common/text.h"
#include "common/unique_fd.h"
#include "kiv_debug/log_as.h"
#include "registry.h"
#include "zol/kiv_debug.h"
#include "zol/kiv_status.h"

namespace
{

void close_end(int32_t &fd, const char *end)
{
    if (const int result = close(fd); result != 0) {
        KIV_LOG_AS("__event_item_free", ERRR, "Failed closing %s fd %d ret %d errno %d\n", end, fd, result,
                   errno);
    }
    fd = -1;
}

// Opens the two ends of a new pipe; the read end does not block.
bool open_pipe(kiv_event_item &item)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        KIV_LOG_AS("__event_item_alloc", ERRR, "Failed to create pipe.\n");
        return false;
    }
    kiv::unique_fd read_end(fds[0]);
    kiv::unique_fd write_end(fds[1]);
    if (const int result = fcntl(read_end.get(), F_SETFL, O_NONBLOCK); result == -1) {
        const int error = errno;
        read_end.reset();
        write_end.reset();
        KIV_LOG_AS("__event_item_alloc", ERRR, "Failed to fctl fd %d, ret %d errno %d.\n", fds[0], result,
                   error);
        return false;
    }
    item.read_fd = read_end.release();
    item.write_fd = write_end.release();
    KIV_LOG_AS("__event_item_alloc", INF1, "Created 2 fds, read %d, write %d\n", item.read_fd, item.write_fd);
    return true;
}

} // namespace

int32_t __event_item_alloc(const char *name, kiv_events_notify_cb notify_cb, kiv_event_item *&item)
{
    kiv_event_item *const record = kiv::take_item();
    if (record == nullptr) {
        KIV_LOG_ERRR("Failed to allocate memory (%d bytes)\n", static_cast<int>(sizeof *record));
        return KIV_ERR_NO_MEMORY;
    }
    if (!open_pipe(*record)) {
        kiv::give_back(*record);
        return KIV_ERR_SYSTEM;
    }
    kiv::copy_bounded(record->pname, sizeof record->pname, name);
    record->notify_cb = notify_cb;
    record->enabled = 0;
    record->shared_with = 0;
    item = record;
    return KIV_OK;
}

void __event_item_free(kiv_event_item &item)
{
    const kiv::cancellation_off uncancelled;
    close_end(item.read_fd, "read");
    close_end(item.write_fd, "write");
    delete[] item.p_data.exchange(nullptr);
    item.data_sz = item.used = 0;
    item.inbox.start_anew();
    item.inbox.free_room();
    kiv::give_back(item);
}

void kiv::wake_users(kiv_event_item &item)
{
    if (item.shared_with != 0 && item.shared_with == getppid()) {
        return; // the parent lives
    }
    const cancellation_off uncancelled;
    const scoped_lock lock(item.reading);
    fcntl(item.write_fd, F_SETFL, O_NONBLOCK);
    uint8_t nowhere[2048];
    int left = 0;
    ioctl(item.read_fd, FIONREAD, &left);
    while (left > 0) {
        const ssize_t got = TEMP_FAILURE_RETRY(read(item.read_fd, nowhere, sizeof nowhere));
        left = got > 0 ? left - static_cast<int>(got) : 0;
    }
    if (TEMP_FAILURE_RETRY(write(item.write_fd, nowhere, 1)) < 0) {
        return; // a notification has filled the pipe again, which serves as well
    }
}
