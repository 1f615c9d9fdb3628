// The emulated chip: its bus, its faults, and the device file.

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <tuple>

#include "support/board.h"

using namespace testSupport;
using namespace framEmulator;

namespace {

// A write transfer: the address, then `count` bytes first, first + 1, ...
Bytes writeTransfer(std::size_t address, std::size_t count, std::size_t first = 1) {
    Bytes bytes = {static_cast<std::uint8_t>(address >> 8), static_cast<std::uint8_t>(address)};
    for (std::size_t i = 0; i < count; ++i)
        bytes.push_back(static_cast<std::uint8_t>(first + i));
    return bytes;
}

// One open of the device with a slave selected. Calls return their result or -errno.
struct Bus {
    explicit Bus(long slave = qwk::eepromSlaveAddress) { select(slave); }
    void select(long slave) { EXPECT_EQ(ioctl(file.get(), I2C_SLAVE, slave), 0); }
    long write(const Bytes& bytes) {
        return orErrno(::write(file.get(), bytes.data(), bytes.size()));
    }
    long read(Bytes& bytes) { return orErrno(::read(file.get(), bytes.data(), bytes.size())); }
    static long orErrno(long result) { return result < 0 ? -errno : result; }

    Descriptor file{open(qwk::eepromDevicePath, O_RDWR | O_CLOEXEC)};
};

using FramDeviceTest = Board;

} // namespace

TEST(FramChipTest, losesPowerAfterAnyByteOfTheTraffic) {
    constexpr std::uint8_t before = 0x0F, written = 0xF0, torn = 0x00; // any other value
    // A write of two bytes to 0x200: the bytes on the wire before the cut, and the stored bytes.
    const std::tuple<std::uint64_t, TornByte, Bytes> cases[] = {
        {0, TornByte::newValue, {before, before}},   {2, TornByte::oldValue, {before, before}},
        {3, TornByte::newValue, {written, before}},  {3, TornByte::oldValue, {before, before}},
        {3, TornByte::randomBits, {torn, before}},   {4, TornByte::newValue, {written, written}},
        {4, TornByte::oldValue, {written, before}},  {4, TornByte::randomBits, {written, torn}},
        {5, TornByte::oldValue, {written, written}}, {5, TornByte::randomBits, {written, written}}};
    for (const auto& [cut, kind, expected] : cases) {
        SCOPED_TRACE(testing::Message() << cut << ' ' << static_cast<int>(kind));
        FramChip chip;
        Bytes old = {2, 0, before, before}, data = {2, 0, written, written}, left(2);
        chip.write(old.data(), old.size());
        chip.cutPowerAfter(cut, kind);
        const bool complete = cut == 5 || (cut == 4 && kind == TornByte::newValue);
        EXPECT_EQ(chip.write(data.data(), data.size()).result, complete ? 4 : -EREMOTEIO);
        EXPECT_EQ(chip.read(left.data(), 2).transferred, cut == 5 ? 1U : 0U);
        chip.powerOn();
        EXPECT_EQ(chip.read(left.data(), 2).result, 2); // from address 0 on
        for (std::size_t i = 0; i < 2; ++i) {
            const std::uint8_t value = chip.image()[0x200 + i];
            EXPECT_EQ(value == before || value == written ? value : torn, expected[i]);
        }
    }
}

TEST(FramChipTest, takesOneMoreByteAfterAResetOfItsMaster) {
    for (unsigned at = 0; at <= 21; ++at) {
        FramChip chip;
        const Bytes written = writeTransfer(0x200, 18);
        chip.resetMasterAfter(at);
        EXPECT_EQ(chip.write(written.data(), 20).result, at == 21 ? 20 : -EREMOTEIO);
        const bool takesOneMore = at >= 2 && at <= 20;
        for (unsigned i = 0; i <= 18; ++i)
            EXPECT_EQ(chip.image()[0x200 + i], i + 2 < at && i < 18          ? 1 + i
                                               : i + 2 == at && takesOneMore ? 0xff
                                                                             : 0)
                << at;
    }
}

TEST_F(FramDeviceTest, passesEachCallOnAsOneTransferOfASharedChip) {
    Bus first, second(0x51);
    Bytes two(2), many(20000);
    EXPECT_EQ(second.read(two), -ENXIO); // no such slave
    second.select(qwk::eepromSlaveAddress);
    EXPECT_EQ(first.write(many), 8192); // the longest message of the bus
    EXPECT_EQ(first.write(writeTransfer(0x3FFE, 4)), 6);
    EXPECT_EQ(first.write(writeTransfer(0x3FFE, 1, 9)), 3);
    EXPECT_EQ(first.read(two), 2);
    EXPECT_EQ(two, (Bytes{2, 3})); // from the chip's last byte and its first
    EXPECT_EQ(second.read(two), 2);
    EXPECT_EQ(two, (Bytes{4, 0}));
    EXPECT_EQ(transfers(), " w0:8192 w8190:6 w8190:3 r8191:2 r1:2");
    chip.cutTransfer(1, 4);
    chip.failTransfer(2);
    chip.failFrom(4);
    const Bytes none(3);
    const std::pair<int, Bytes> outcomes[] = {
        {4, {1, 2, 0}}, {-EREMOTEIO, none}, {5, {1, 2, 3}}, {-EREMOTEIO, none}, {-EREMOTEIO, none}};
    for (const auto& [result, stored] : outcomes) {
        chip.setImage({});
        EXPECT_EQ(first.write(writeTransfer(0, 3)), result);
        EXPECT_EQ(bytes(0, 3), stored);
    }
    EXPECT_EQ(chip.wireBytes(), 4U + 5U);
    chip.clearFaults();
    EXPECT_EQ(first.write(writeTransfer(0, 3)), 5);
    chip.refuseOpens();
    EXPECT_LT(open(qwk::eepromDevicePath, O_RDWR | O_CLOEXEC), 0);
}

TEST(FramEmulatorProgramTest, keepsEachByteThoughKilledAndUnmountsWhenStopped) {
    const std::string unmounted = readFile("/proc/self/mountinfo");
    for (const int signal : {SIGKILL, SIGTERM}) { // the second takes over from the dead mount
        ChildProcess emulator(buildPath("fram-emulator"),
                              {"--image", "/tmp/fram.image", qwk::eepromDevicePath});
        ASSERT_TRUE(emulator.waitForOutput("Serving /dev/i2c-2\n", 20s)) << emulator.output();
        Bus bus; // stays open beyond the end
        Bytes two(2);
        const bool isFirst = signal == SIGKILL;
        EXPECT_EQ(bus.write(writeTransfer(0x1FFF, isFirst ? 2 : 0)), isFirst ? 4 : 2);
        EXPECT_TRUE(isFirst || (bus.read(two) == 2 && two == Bytes{1, 2}));
        emulator.kill(signal);
        ASSERT_EQ(emulator.wait(20s), isFirst ? -SIGKILL : 0);
    }
    EXPECT_FALSE(std::filesystem::exists(qwk::eepromDevicePath));
    EXPECT_EQ(readFile("/proc/self/mountinfo"), unmounted);
}
