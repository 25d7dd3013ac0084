/* A 32-bit program on a 64-bit virtual board: its pointers and records are shorter. Ends with the number of wrong answers.
   It has no C library, because that may be missing. */
enum { SYS_EXIT = 1, SYS_OPEN = 5, SYS_IOCTL = 54 };
enum { I2C_SLAVE = 0x703, I2C_FUNCS = 0x705, I2C_RDWR = 0x707, I2C_SMBUS = 0x720 };

static int system_call(int number, int first, int second, int third)
{
    int result;
    __asm__ volatile("int $0x80"
                     : "=a"(result)
                     : "a"(number), "b"(first), "c"(second), "d"(third)
                     : "memory");
    return result;
}

static int ioctl(int fd, int command, const void *argument)
{
    return system_call(SYS_IOCTL, fd, command, (int)argument);
}

void _start(void)
{
    unsigned functions[2] = {0, 0x11223344}; /* the second one must not be written to */
    unsigned char reg = 0x0f, value[2] = {0, 0x55}, data[34] = {0};
    struct {
        unsigned short address, flags, length;
        unsigned char *bytes;
    } messages[] = {{0x18, 0, 1, &reg}, {0x18, 1, 1, value}};
    struct {
        void *messages;
        unsigned count;
    } transfer = {messages, 2};
    struct {
        unsigned char read, command;
        unsigned size;
        void *data;
    } smbus = {1, 0x0f, 2, data};

    int fd = system_call(SYS_OPEN, (int)"/dev/i2c-4", 2, 0), wrong = fd < 0;
    wrong += ioctl(fd, I2C_FUNCS, functions) != 0 || (functions[0] & 1) == 0 || functions[1] != 0x11223344;
    wrong += ioctl(fd, I2C_RDWR, &transfer) != 2 || value[0] != 0x33 || value[1] != 0x55;
    wrong += ioctl(fd, I2C_SLAVE, (void *)0x18) != 0;
    wrong += ioctl(fd, I2C_SMBUS, &smbus) != 0 || data[0] != 0x33 || data[1] != 0;
    system_call(SYS_EXIT, wrong, 0, 0);
}
