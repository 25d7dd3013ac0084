// Registers, buses and the journal of the virtual board; the node with transfers of this very process.

#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "i2c_node.h"

using kivboard::i2c_message;
using kivboard::increment;
using kivboard::refusal;
using bytes = std::vector<std::uint8_t>;
using namespace std::chrono_literals;

namespace
{

kivboard::bus_description bus_4()
{
    return {4,
            {{"sensor", 0x18, 8, 16, refusal::nothing, {}, {{14, {0xaa, 0xbb}}}},
             {"eeprom", 0x50, 16, 0x800, refusal::nothing, {}, {}},
             {"mute", 0x19, 8, 16, refusal::all, {}, {}},
             {"fixed", 0x1a, 8, 16, refusal::writes, {}, {}},
             {"tired", 0x1b, 8, 16, refusal::nothing, 2, {}},
             {"words",
              0x48,
              8,
              4,
              refusal::nothing,
              {},
              {{0, {0x19, 0x80}, 0xffff, false}, {1, {1, 2, 3, 4}, 0x0f00, true}},
              16},
             {"bit 7",
              0x1c,
              8,
              0x80,
              refusal::nothing,
              {},
              {{0x28, {1, 2}, 0, false}, {0x31, {0x40}, 0, true}},
              8,
              increment::bit7},
             {"fixed pointer", 0x1d, 8, 16, refusal::nothing, {}, {}, 16, increment::never},
             {"every third", 0x1e, 8, 16, refusal::nothing, {}, {}, 8, {}, 3},
             {"slow", 0x1f, 8, 16, refusal::nothing, {}, {}, 8, {}, 1, 800ms}},
            "",
            ""};
}

TEST(BoardI2c, PointersAdvanceAndWrapAndRefusalsAreNoAnswer)
{
    const struct {
        std::uint16_t address;
        bytes written;
        int result;
        bytes read;
    } transfers[] = {{0x48, {}, 0, {0x19}}, // no register was named before
                     {0x18, {14}, 0, {0xaa, 0xbb, 0}},
                     {0x18, {15, 1, 2}, 0, {}},
                     {0x18, {15}, 0, {1, 2}},
                     {0x18, {}, 0, {0}}, // continues behind the last one
                     {0x50, {0x01, 0x23, 9, 8}, 0, {}},
                     {0x50, {0x01, 0x24}, 0, {8}},
                     {0x50, {0x01}, 0, {}}, // half an address changes nothing
                     {0x50, {}, 0, {0}},
                     {0x77, {0}, ENXIO, {}},
                     {0x19, {0}, ENXIO, {0}},
                     {0x1a, {1, 0x55}, ENXIO, {}}, // and writes nothing
                     {0x1a, {1}, 0, {0}},
                     {0x1b, {1}, 0, {0}},
                     {0x1b, {1, 2}, 0, {}},
                     {0x1b, {1}, ENXIO, {}}, // the third transfer
                     {0x48, {0}, 0, {0x19, 0x80, 1, 2, 3}},
                     {0x48, {1}, 0, {0, 0, 3}}, // only the word that was read whole is clear
                     {0x48, {0, 9, 9, 0xff, 0xff, 9}, 0, {3, 4}},
                     {0x48, {0}, 0, {0x19, 0x80, 0xf0, 0xff}},
                     {0x1c, {0x28}, 0, {1, 1}},
                     {0x1c, {0xa8}, 0, {1, 2, 0}},
                     {0x1c, {0x31}, 0, {0x40, 0}},
                     {0x1c, {0x28, 8, 9}, 0, {9}},
                     {0x1d, {3, 1, 2, 3, 4}, 0, {3, 4, 3, 4}},
                     {0x1e, {1}, ENXIO, {}},
                     {0x1e, {1}, ENXIO, {}},
                     {0x1e, {1, 5}, 0, {}},
                     {0x1e, {1}, ENXIO, {}}};
    kivboard::described_bus bus(bus_4());
    for (const auto &[address, written, result, read] : transfers) {
        std::vector<i2c_message> messages;
        if (!written.empty()) {
            messages.push_back({address, false, written});
        }
        if (!read.empty()) {
            messages.push_back({address, true, bytes(read.size())});
        }
        EXPECT_EQ(bus.transfer(messages), result);
        EXPECT_TRUE(read.empty() || messages.back().bytes == read)
            << "of " << address << ", " << testing::PrintToString(written);
    }
}

TEST(BoardI2c, RetriesAndTimeoutsAreThoseOfTheAdapter)
{
    kivboard::described_bus bus(bus_4());
    std::vector<i2c_message> third = {{0x1e, false, {}}};
    std::vector<i2c_message> nobody = {{0x1e, false, {}}, {0x77, false, {}}};
    bus.set_retries(2);
    EXPECT_EQ(bus.transfer(third), 0);
    bus.set_retries(std::numeric_limits<int>::max());
    EXPECT_EQ(bus.transfer(nobody), ENXIO); // at once
    bus.set_retries(std::numeric_limits<unsigned long>::max());
    for (const auto &[address, result] : {std::pair{0x19, ENXIO}, {0x1b, 0}, {0x1b, 0}, {0x1b, ENXIO}}) {
        std::vector<i2c_message> asked = {{static_cast<std::uint16_t>(address), false, {}}};
        EXPECT_EQ(bus.transfer(asked), result) << address;
    }

    std::vector<i2c_message> slow = {{0x1f, false, {2, 7}}};
    const auto begun = kivboard::board_clock::now();
    EXPECT_EQ(bus.transfer(slow), 0);
    EXPECT_EQ(bus.transfer(slow), 0);
    EXPECT_GE(bus.busy_until() - begun, 1600ms);
    const auto busy = bus.busy_until();
    bus.set_timeout(500ms);
    slow[0].bytes[1] = 8;
    EXPECT_EQ(bus.transfer(slow), ETIMEDOUT);
    EXPECT_EQ(bus.busy_until(), busy + 500ms);
    EXPECT_EQ(bus.find(0x1f)->peek(2), 7);
}

// As one of the machine, at which a driver uses all addresses.
class claimed_bus : public kivboard::described_bus
{
public:
    using described_bus::described_bus;

    int claim(std::uint16_t) override { return EBUSY; }
    void set_retries(unsigned long retries) override { settings_ += std::to_string(retries) + " retries, "; }
    void set_timeout(std::chrono::milliseconds timeout) override
    {
        settings_ += std::to_string(timeout.count()) + " ms";
    }

    std::string settings_;
};

TEST(BoardI2c, SettingsReachTheBus)
{
    claimed_bus bus(bus_4());
    kivboard::journal journal;
    const auto file = kivboard::i2c_node(4, bus, journal).make_open_file();
    const auto set = [&file](unsigned command, std::uint64_t argument) {
        return file->ioctl({getpid(), command, argument, false});
    };
    EXPECT_EQ(set(I2C_SLAVE_FORCE, 0x1f), 0);
    EXPECT_EQ(set(I2C_SLAVE, 0x18), -EBUSY);
    EXPECT_EQ(set(I2C_RETRIES, 3), 0);
    EXPECT_EQ(set(I2C_TIMEOUT, 7), 0);
    EXPECT_EQ(bus.settings_, "3 retries, 70 ms");
    std::string read;
    EXPECT_EQ(file->read(0, 1, read), 0);
    EXPECT_EQ(journal.from(1), "1 i2c-4 0x1f R[00] ok\n") << "the address before the refused one";
    EXPECT_EQ(file->ready_at(), bus.busy_until());
    EXPECT_EQ(set(I2C_PEC, 0), 0);
    EXPECT_EQ(file->ready_at(), kivboard::board_clock::time_point()) << "without a transfer: at once";
}

TEST(BoardI2c, HostileRequestsAreRefused)
{
    kivboard::described_bus bus(bus_4());
    kivboard::journal journal;
    const auto file = kivboard::i2c_node(4, bus, journal).make_open_file();
    const auto ioctl = [&file](unsigned command, const void *argument) {
        return file->ioctl(
            {getpid(), command, reinterpret_cast<std::uintptr_t>(argument), sizeof(void *) == 4});
    };
    if (process_vm_readv(getpid(), nullptr, 0, nullptr, 0, 0) != 0 && errno == ENOSYS) {
        GTEST_SKIP() << "an emulator of one program has no process_vm_readv()";
    }
    std::uint8_t byte = 0;
    i2c_msg message = {0x18, 0, 1, &byte};
    auto *const nowhere = reinterpret_cast<std::uint8_t *>(16);
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    auto *const pages = static_cast<std::uint8_t *>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
    std::uint8_t *const last = pages + page - 1; // the next byte cannot be read
    std::uint8_t room[33] = {1};                 // beside the bytes of a counted read
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
                 {{&message, 1}, {0x18, 0, 2, last}, -EFAULT},
                 {{&message, 1}, {0x18, I2C_M_RD, 1, nowhere}, -EFAULT},
                 {{&message, 1}, {0x18, I2C_M_RECV_LEN, 33, room}, -EINVAL},
                 {{&message, 1}, {0x18, I2C_M_RD | I2C_M_RECV_LEN, 0, nowhere}, -EINVAL},
                 {{&message, 1}, {0x18, I2C_M_RD | I2C_M_RECV_LEN, 32, room}, -EINVAL},
                 {{&message, 1}, {0x18, I2C_M_RD | I2C_M_RECV_LEN, 33, &byte}, -EINVAL},
                 {{&message, 1}, {0x18, I2C_M_RD | I2C_M_RECV_LEN, 33, nowhere}, -EFAULT},
                 {{&message, 1}, {0x18, 0, 0, nullptr}, 1}};
    for (const auto &[request, content, result] : cases) {
        message = content;
        EXPECT_EQ(ioctl(I2C_RDWR, &request), result);
    }
    EXPECT_EQ(journal.from(1), "1 i2c-4 0x18 W[] ok\n");
    for (const unsigned command : {0U + I2C_RDWR, 0U + I2C_SMBUS, 0U + I2C_FUNCS}) {
        EXPECT_EQ(ioctl(command, nowhere), -EFAULT);
    }

    i2c_smbus_data data = {};
    const struct {
        std::uint8_t direction;
        std::uint32_t size;
        i2c_smbus_data *data;
        std::uint8_t count;
        int result;
    } requests[] = {{I2C_SMBUS_WRITE, 9, &data, 0, -EINVAL},
                    {2, I2C_SMBUS_BYTE_DATA, &data, 0, -EINVAL},
                    {I2C_SMBUS_READ, I2C_SMBUS_BYTE, nullptr, 0, -EINVAL},
                    {I2C_SMBUS_WRITE, I2C_SMBUS_BYTE, nullptr, 0, 0},
                    {I2C_SMBUS_READ, I2C_SMBUS_BYTE, reinterpret_cast<i2c_smbus_data *>(nowhere), 0, -EFAULT},
                    {I2C_SMBUS_WRITE, I2C_SMBUS_BLOCK_DATA, &data, 33, -EINVAL},
                    {I2C_SMBUS_WRITE, I2C_SMBUS_BLOCK_PROC_CALL, &data, 33, -EINVAL},
                    {I2C_SMBUS_READ, I2C_SMBUS_I2C_BLOCK_DATA, &data, 33, -EINVAL},
                    {I2C_SMBUS_READ, I2C_SMBUS_BLOCK_DATA, &data, 0, -EPROTO}, // the device's count is 0
                    {I2C_SMBUS_WRITE, I2C_SMBUS_I2C_BLOCK_BROKEN, &data, 2, 0},
                    {I2C_SMBUS_READ, I2C_SMBUS_I2C_BLOCK_BROKEN, &data, 0, 0}};
    data.block[1] = 7;
    data.block[2] = 8;
    EXPECT_EQ(file->ioctl({getpid(), I2C_SLAVE, 0x18, false}), 0);
    for (const auto &[direction, size, target, count, result] : requests) {
        data.block[0] = count;
        const i2c_smbus_ioctl_data request = {direction, 2, size, target};
        EXPECT_EQ(ioctl(I2C_SMBUS, &request), result) << "of size " << size;
    }
    EXPECT_EQ(bytes(data.block, data.block + 4), bytes({32, 7, 8, 0})) << "a whole block";

    const struct {
        unsigned command;
        std::uint64_t argument;
        int result;
    } settings[] = {{I2C_SLAVE, 0x80, -EINVAL},
                    {I2C_RETRIES, 0x80000000, -EINVAL},
                    {I2C_TIMEOUT, 0x80000000, -EINVAL},
                    {I2C_PEC, 1, 0},
                    {I2C_TENBIT, 1, 0},
                    {I2C_SLAVE_FORCE, 0x400, -EINVAL},
                    {I2C_SLAVE_FORCE, 0x3ff, 0},
                    {0x0709, 0, -ENOTTY}};
    for (const auto &[command, argument, result] : settings) {
        EXPECT_EQ(file->ioctl({getpid(), command, argument, false}), result) << command << " " << argument;
    }
    std::string read;
    message = {0x1f, 0, 1, &byte};
    i2c_rdwr_ioctl_data slow = {&message, 1};
    EXPECT_EQ(ioctl(I2C_RDWR, &slow), 1);
    EXPECT_EQ(file->read(0, 1, read), -EOPNOTSUPP); // no 10-bit addresses
    EXPECT_EQ(file->ready_at(), kivboard::board_clock::time_point());
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

    using enum kivboard::journal_format;
    journal.mark_stimulus(3, "raise");
    EXPECT_TRUE(journal.from(1, json).starts_with("{\"gone\":1}\n{\"number\":2,"));
    EXPECT_NE(journal.from(3, json).find("\"stimulus\":\"raise\""), std::string::npos);
    journal.add("d", {kivboard::i2c_target{4, 0x18}, 0});
    EXPECT_EQ(journal.find({4, 0x18}, 1), 4U);
    EXPECT_EQ(journal.find({4, 0x18}, 5), std::nullopt);
    EXPECT_EQ(journal.find({4, 0x19}, 1), std::nullopt);
}

} // namespace
