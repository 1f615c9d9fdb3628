// The stand-in chip: its bus and its faults, and what the users of the device meet.

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>

#include "framEmulator/framChip.h"
#include "framEmulator/framDevice.h"
#include "support/childProcess.h"
#include "support/sandbox.h"

namespace {

using namespace framEmulator;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Options = std::vector<std::string>;

constexpr const char* devicePath = "/dev/i2c-2";

// A write transfer: the address, then `count` bytes first, first + 1, ...
Bytes writeTransfer(size_t address, size_t count, size_t first = 1) {
    Bytes bytes = {static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address)};
    for (size_t i = 0; i < count; ++i)
        bytes.push_back(static_cast<uint8_t>(first + i));
    return bytes;
}

int send(FramChip& chip, const Bytes& bytes) {
    return chip.write(bytes.data(), bytes.size()).result;
}

Bytes receive(FramChip& chip, size_t count) {
    Bytes bytes(count);
    bytes.resize(chip.read(bytes.data(), count).transferred);
    return bytes;
}

// One open of the device with a slave selected. Calls return their result or -errno.
struct Bus {
    explicit Bus(unsigned long slave = 0x50) { select(slave); }
    long select(unsigned long slave) { return orErrno(::ioctl(file.get(), I2C_SLAVE, slave)); }
    long write(const Bytes& bytes) {
        return orErrno(::write(file.get(), bytes.data(), bytes.size()));
    }
    long read(Bytes& bytes) { return orErrno(::read(file.get(), bytes.data(), bytes.size())); }
    static long orErrno(long result) { return result < 0 ? -errno : result; }

    testSupport::Descriptor file{::open(devicePath, O_RDWR | O_CLOEXEC)};
};

TEST(FramChipTest, countsAddressesAcrossTransfersAndWrapsAtTheEnd) {
    for (const size_t named : {0x0000U, 0x1ffeU, 0x1fffU, 0x3ffeU}) {
        FramChip chip;
        EXPECT_EQ(send(chip, writeTransfer(named, 4)), 6);
        for (size_t i = 0; i < 4; ++i)
            EXPECT_EQ(chip.image()[(named + i) % chipSize], 1 + i) << named;
        EXPECT_EQ(send(chip, writeTransfer(named, 1, 9)), 3);
        EXPECT_EQ(receive(chip, 3), (Bytes{2, 3, 4})); // goes on after the 9
        EXPECT_EQ(chip.record().back().address, (named + 1) % chipSize);
        EXPECT_EQ(chip.wireBytes(), 6U + 3U + 3U);
    }
}

TEST(FramChipTest, failsAndCutsTheChosenTransfersOnly) {
    const std::pair<void (*)(FramChip&), std::vector<int>> cases[] = {
        {[](FramChip& chip) { chip.failTransfer(2); }, {5, -EREMOTEIO, 5, 5}},
        {[](FramChip& chip) { chip.failFrom(3); }, {5, 5, -EREMOTEIO, -EREMOTEIO}},
        {[](FramChip& chip) { chip.cutTransfer(2, 3); }, {5, 3, 5, 5}}};
    for (const auto& [set, results] : cases) {
        FramChip chip;
        send(chip, writeTransfer(0x100, 8)); // numbers start after this one
        set(chip);
        for (const int result : results) {
            chip.setImage({});
            EXPECT_EQ(send(chip, writeTransfer(0, 3)), result);
            const Image image = chip.image();
            EXPECT_EQ(8192 - std::count(image.begin(), image.end(), 0), std::max(result, 2) - 2);
        }
        chip.clearFaults();
        EXPECT_EQ(send(chip, writeTransfer(0, 3)), 5);
    }
}

TEST(FramChipTest, losesPowerAfterAnyByteOfTheTraffic) {
    for (const TornByte torn : {TornByte::newValue, TornByte::oldValue, TornByte::randomBits}) {
        size_t neitherOldNorNew = 0;
        for (size_t cut = 0; cut <= 21; ++cut) {
            FramChip chip;
            send(chip, writeTransfer(0x200, 18, 101));
            chip.cutPowerAfter(cut, torn);
            const bool complete = cut == 21 || (cut == 20 && torn == TornByte::newValue);
            EXPECT_EQ(send(chip, writeTransfer(0x200, 18)), complete ? 20 : -EREMOTEIO) << cut;
            EXPECT_EQ(receive(chip, 2).size(), cut == 21 ? 1U : 0U);
            chip.powerOn();
            EXPECT_EQ(send(chip, {0x02, 0x00}), 2);
            const Bytes after = receive(chip, 18);
            for (size_t i = 0; i < 18; ++i) {
                const bool isTorn = i + 3 == cut && torn != TornByte::newValue;
                if (isTorn && torn == TornByte::randomBits)
                    neitherOldNorNew += after[i] != 101 + i && after[i] != 1 + i;
                else
                    EXPECT_EQ(after[i], (i + 2 < cut && !isTorn ? 1 : 101) + i) << cut;
            }
        }
        EXPECT_EQ(neitherOldNorNew > 0, torn == TornByte::randomBits);
    }
}

TEST(FramDeviceTest, passesEachCallOnAsOneTransferOfASharedChip) {
    FramChip chip;
    const FramDevice device(devicePath, chip);
    Bus first, second(0x51);
    Bytes two(2), many(20000);
    EXPECT_EQ(second.read(two), -ENXIO); // no such slave
    EXPECT_EQ(second.select(0x80), -EINVAL);
    EXPECT_EQ(chip.transferCount(), 0U);
    EXPECT_EQ(second.select(0x50), 0);
    EXPECT_EQ(first.write(many), 8192); // the longest message of the bus
    EXPECT_EQ(first.write(writeTransfer(0x40, 4)), 6);
    EXPECT_EQ(first.write({0x00, 0x40}), 2);
    EXPECT_EQ(first.read(two), 2);
    EXPECT_EQ(second.read(two), 2);
    EXPECT_EQ(two, (Bytes{3, 4}));
    const std::vector<Transfer> record = chip.record();
    ASSERT_EQ(record.size(), 5U);
    EXPECT_EQ(record[2].opener, record[3].opener);
    EXPECT_NE(record[3].opener, record[4].opener);
    chip.cutTransfer(1, 4);
    chip.failTransfer(2);
    EXPECT_EQ(first.write(writeTransfer(0, 18)), 4);
    EXPECT_EQ(first.write(writeTransfer(0, 18)), -EREMOTEIO);
    chip.refuseOpens();
    EXPECT_FALSE(Bus().file.isOpen());
}

TEST(FramEmulatorProgramTest, keepsEachByteThoughKilledAndUnmountsWhenStopped) {
    const std::string path = testSupport::buildPath("fram-emulator");
    const Options options = {"--image", "/tmp/fram.image", devicePath};
    for (const int signal : {SIGKILL, SIGTERM}) { // the second takes over from the dead mount
        testSupport::ChildProcess emulator(path, options, {{}, {}, true});
        ASSERT_TRUE(emulator.waitForOutput("Serving /dev/i2c-2\n", 20s)) << emulator.output();
        Bus bus; // stays open beyond the end
        Bytes two(2);
        EXPECT_EQ(bus.write(signal == SIGKILL ? writeTransfer(0x1fff, 2) : Bytes{0x1f, 0xff}),
                  signal == SIGKILL ? 4 : 2);
        EXPECT_TRUE(signal == SIGKILL || (bus.read(two) == 2 && two == Bytes{1, 2}));
        emulator.kill(signal);
        ASSERT_EQ(emulator.wait(20s), signal == SIGKILL ? -SIGKILL : 0);
    }
    EXPECT_FALSE(std::filesystem::exists(devicePath));
}

} // namespace
