// GPIO chips for a program that is started with this library preloaded: /dev/gpiochip0, "first", has 32 lines, of which line
// 9 belongs to "lamp"; /dev/gpiochip1, "second", has 16 lines. A line takes configurations, and has no events.
#define _GNU_SOURCE
#include <errno.h>
#include <linux/gpio.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

enum { CHIPS = 2, TAKEN_LINE = 9, DESCRIPTORS = 1024 };
enum { CREATES_FILE = 0100, OPENS_HERE = -100 }; // O_CREAT and AT_FDCWD: their header declares open()

static const struct gpiochip_info infos[CHIPS] = {{"gpiochip0", "first", 32}, {"gpiochip1", "second", 16}};
static const struct gpiochip_info *chips[DESCRIPTORS]; // by descriptor

static int open_at(const char *path, int flags, unsigned mode)
{
    int number = -1;
    const int is_chip = sscanf(path, "/dev/gpiochip%d", &number) == 1 && number >= 0 && number < CHIPS;
    const int fd = (int)syscall(SYS_openat, OPENS_HERE, is_chip ? "/dev/null" : path, flags, mode);
    if (fd >= 0 && fd < DESCRIPTORS)
        chips[fd] = is_chip ? &infos[number] : NULL;
    return fd;
}

int open(const char *path, int flags, ...)
{
    unsigned mode = 0;
    if (flags & CREATES_FILE) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, unsigned);
        va_end(arguments);
    }
    return open_at(path, flags, mode);
}

int __open_2(const char *path, int flags)
{
    return open_at(path, flags, 0);
}

static int request_line(struct gpio_v2_line_request *request)
{
    int ends[2];
    errno = EBUSY;
    if (request->offsets[0] == TAKEN_LINE || pipe(ends) != 0)
        return -1;
    request->fd = ends[0];
    return 0;
}

static int serve(const struct gpiochip_info *chip, unsigned long request, void *argument)
{
    switch (request) {
    case GPIO_GET_CHIPINFO_IOCTL:
        memcpy(argument, chip, sizeof *chip);
        return 0;
    case GPIO_V2_GET_LINEINFO_IOCTL:
        strcpy(((struct gpio_v2_line_info *)argument)->consumer, "lamp");
        return 0;
    default:
        return request_line(argument);
    }
}

int ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    if (fd >= 0 && fd < DESCRIPTORS && chips[fd] != NULL)
        return serve(chips[fd], request, argument);
    return request == GPIO_V2_LINE_SET_CONFIG_IOCTL ? 0 : (int)syscall(SYS_ioctl, fd, request, argument);
}
