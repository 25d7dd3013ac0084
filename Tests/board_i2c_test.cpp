// Registers, buses and the journal of the virtual board; the node with transfers of this very process.

#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "i2c_node.h"

using kivboard::i2c_message;
using kivboard::refusal;
using bytes = std::vector<std::uint8_t>;

namespace
{

const kivboard::bus_description description = {
    4,
    {{"sensor", 0x18, 8, 16, refusal::nothing, {}, {{14, {0xaa, 0xbb}}}},
     {"eeprom", 0x50, 16, 0x800, refusal::nothing, {}, {}},
     {"mute", 0x19, 8, 16, refusal::all, {}, {}},
     {"fixed", 0x1a, 8, 16, refusal::writes, {}, {}},
     {"tired", 0x1b, 8, 16, refusal::nothing, 2, {}}}};

class BoardI2c : public testing::Test
{
protected:
    int transfer(std::uint16_t address, const bytes &written, std::size_t to_read = 0)
    {
        std::vector<i2c_message> messages;
        if (!written.empty()) {
            messages.push_back({address, false, written});
        }
        if (to_read > 0) {
            messages.push_back({address, true, bytes(to_read)});
        }
        const int result = bus_.transfer(messages);
        read_ = to_read > 0 ? messages.back().bytes : bytes();
        return result;
    }

    // What an application would hand to the kernel.
    int ioctl(unsigned command, const void *argument)
    {
        kivboard::i2c_node node(4, bus_, journal_);
        return node.ioctl(
            {getpid(), command, reinterpret_cast<std::uintptr_t>(argument), sizeof(void *) == 4});
    }

    kivboard::i2c_bus bus_{description};
    kivboard::journal journal_;
    bytes read_;
};

TEST_F(BoardI2c, PointersAdvanceAndWrapAndRefusalsAreNoAnswer)
{
    const struct {
        std::uint16_t address;
        bytes written;
        int result;
        bytes read;
    } transfers[] = {{0x18, {14}, 0, {0xaa, 0xbb, 0}},
                     {0x18, {15, 1, 2}, 0, {}},
                     {0x18, {15}, 0, {1, 2}},
                     {0x18, {}, 0, {0}}, // goes on behind
                     {0x50, {0x01, 0x23, 9, 8}, 0, {}},
                     {0x50, {0x01, 0x24}, 0, {8}},
                     {0x50, {0x01}, 0, {}}, // half an address changes nothing
                     {0x50, {}, 0, {0}},
                     {0x77, {0}, ENXIO, {}},
                     {0x19, {0}, ENXIO, {0}},
                     {0x1a, {1, 0x55}, ENXIO, {}}, // so nothing is written
                     {0x1a, {1}, 0, {0}},
                     {0x1b, {1}, 0, {0}},
                     {0x1b, {1, 2}, 0, {}},
                     {0x1b, {1}, ENXIO, {}}}; // the third transfer
    for (const auto &[address, written, result, read] : transfers) {
        EXPECT_EQ(transfer(address, written, read.size()), result);
        EXPECT_EQ(read_, read) << "of " << address << ", " << testing::PrintToString(written);
    }
}

TEST_F(BoardI2c, HostileRequestsAreRefused)
{
    if (process_vm_readv(getpid(), nullptr, 0, nullptr, 0, 0) != 0 && errno == ENOSYS) {
        GTEST_SKIP() << "an emulator of one program has no process_vm_readv()";
    }
    std::uint8_t byte = 0;
    i2c_msg message = {0x18, 0, 1, &byte};
    auto *const nowhere = reinterpret_cast<std::uint8_t *>(16);
    const struct {
        i2c_rdwr_ioctl_data request;
        i2c_msg message;
        int result;
    } cases[] = {{{&message, 0}, message, -EINVAL},
                 {{&message, 43}, message, -EINVAL},
                 {{&message, 0xffffffff}, message, -EINVAL},
                 {{nullptr, 1}, message, -EINVAL},
                 {{reinterpret_cast<i2c_msg *>(nowhere), 1}, message, -EFAULT},
                 {{&message, 1}, {0x18, 0, 8193, &byte}, -EINVAL},
                 {{&message, 1}, {0x18, I2C_M_TEN, 1, &byte}, -EOPNOTSUPP},
                 {{&message, 1}, {0x18, 0, 1, nowhere}, -EFAULT},
                 {{&message, 1}, {0x18, I2C_M_RD, 1, nowhere}, -EFAULT},
                 {{&message, 1}, {0x18, 0, 0, nullptr}, 1}};
    for (const auto &[request, content, result] : cases) {
        message = content;
        EXPECT_EQ(ioctl(I2C_RDWR, &request), result);
    }
    EXPECT_EQ(journal_.from(1), "1 i2c-4 0x18 R[1 bytes] errno 14\n2 i2c-4 0x18 W[] ok\n");
    EXPECT_EQ(ioctl(I2C_RDWR, nowhere), -EFAULT);
    EXPECT_EQ(ioctl(I2C_SLAVE, nowhere), -ENOTTY);
    unsigned long functions = 0;
    EXPECT_EQ(ioctl(I2C_FUNCS, &functions), 0);
    EXPECT_EQ(functions, static_cast<unsigned long>(I2C_FUNC_I2C));
}

TEST(BoardJournal, KeepsTheLatestLines)
{
    kivboard::journal journal(2);
    for (const char *line : {"a", "b", "c"}) {
        journal.add(line);
    }
    EXPECT_EQ(journal.from(1), "(1 older lines are gone)\n2 b\n3 c\n");
    EXPECT_EQ(journal.from(3), "3 c\n");
    EXPECT_EQ(journal.from(4), "");
}

} // namespace
