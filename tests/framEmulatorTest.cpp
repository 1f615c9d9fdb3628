#include "framEmulator/framChip.h"
#include "framEmulator/framDevice.h"
#include "support/childProcess.h"
#include "support/sandbox.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace framEmulator;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using testSupport::ChildProcess;

constexpr const char* devicePath = "/dev/i2c-2";
constexpr unsigned long chipAddress = 0x50;

/// A write transfer: the address, then `count` bytes first, first + 1, ...
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

/// One open of the device with a slave selected. Calls return their result or -errno.
class Bus {
public:
    explicit Bus(unsigned long slave = chipAddress)
        : file_(::open(devicePath, O_RDWR | O_CLOEXEC)), openError_(file_.isOpen() ? 0 : errno) {
        if (slave != 0)
            select(slave);
    }

    int openError() const { return openError_; }
    long select(unsigned long slave) { return control(I2C_SLAVE, slave); }
    long control(unsigned long request, unsigned long argument) {
        return orErrno(::ioctl(file_.get(), request, argument));
    }
    long write(const Bytes& bytes) {
        return orErrno(::write(file_.get(), bytes.data(), bytes.size()));
    }
    long read(Bytes& bytes) { return orErrno(::read(file_.get(), bytes.data(), bytes.size())); }

private:
    static long orErrno(long result) { return result < 0 ? -errno : result; }

    testSupport::Descriptor file_;
    int openError_;
};

TEST(FramChipTest, countsAddressesAcrossTransfersAndWrapsAtTheEnd) {
    const struct {
        size_t named;
        size_t stored;
    } cases[] = {{0, 0}, {0x0ffe, 0x0ffe}, {0x1ffe, 0x1ffe}, {0x1fff, 0x1fff}, {0x3ffe, 0x1ffe}};
    for (const auto& [named, stored] : cases) {
        SCOPED_TRACE(named);
        FramChip chip;
        EXPECT_EQ(send(chip, writeTransfer(named, 4)), 6);
        for (size_t i = 0; i < 4; ++i)
            EXPECT_EQ(chip.image()[(stored + i) % chipSize], 1 + i);
        EXPECT_EQ(send(chip, writeTransfer(named, 1, 9)), 3);
        EXPECT_EQ(receive(chip, 3), (Bytes{2, 3, 4})); // goes on after the 9
        EXPECT_EQ(chip.record().back().address, (stored + 1) % chipSize);
        EXPECT_EQ(chip.wireBytes(), 6U + 3U + 3U);
    }
}

TEST(FramChipTest, failsAndCutsTheChosenTransfersOnly) {
    const struct {
        const char* fault;
        void (*set)(FramChip&);
        std::vector<int> results; // of four writes of five bytes each
    } cases[] = {
        {"once", [](FramChip& chip) { chip.failTransfer(2); }, {5, -EREMOTEIO, 5, 5}},
        {"for good", [](FramChip& chip) { chip.failFrom(3); }, {5, 5, -EREMOTEIO, -EREMOTEIO}},
        {"cut", [](FramChip& chip) { chip.cutTransfer(2, 3); }, {5, 3, 5, 5}},
    };
    for (const auto& [fault, set, results] : cases) {
        SCOPED_TRACE(fault);
        FramChip chip;
        send(chip, writeTransfer(0x100, 8)); // numbers start after this one
        set(chip);
        for (const int result : results) {
            chip.setImage({});
            EXPECT_EQ(send(chip, writeTransfer(0, 3)), result);
            const Image image = chip.image();
            EXPECT_EQ(std::count_if(image.begin(), image.end(), [](int byte) { return byte != 0; }),
                      std::max(result, 2) - 2);
        }
        chip.clearFaults();
        EXPECT_EQ(send(chip, writeTransfer(0, 3)), 5);
    }
}

TEST(FramChipTest, losesPowerAfterAnyByteOfTheTraffic) {
    for (const TornByte torn : {TornByte::newValue, TornByte::oldValue, TornByte::randomBits}) {
        size_t neitherOldNorNew = 0;
        for (size_t cut = 0; cut <= 21; ++cut) {
            SCOPED_TRACE("cut after " + std::to_string(cut));
            FramChip chip;
            send(chip, writeTransfer(0x200, 18, 101));
            chip.cutPowerAfter(cut, torn);
            const bool complete = cut == 21 || (cut == 20 && torn == TornByte::newValue);
            EXPECT_EQ(send(chip, writeTransfer(0x200, 18)), complete ? 20 : -EREMOTEIO);
            EXPECT_EQ(receive(chip, 2).size(), cut == 21 ? 1U : 0U);
            EXPECT_FALSE(chip.isPowered());

            chip.powerOn();
            EXPECT_EQ(send(chip, {0x02, 0x00}), 2);
            const Bytes after = receive(chip, 18);
            const size_t reached = std::max<size_t>(cut, 2) - 2;
            for (size_t i = 0; i < 18; ++i) {
                const bool isTorn = i + 3 == cut && torn != TornByte::newValue;
                if (isTorn && torn == TornByte::randomBits)
                    neitherOldNorNew += after[i] != 101 + i && after[i] != 1 + i;
                else
                    EXPECT_EQ(after[i], (i < reached && !isTorn ? 1 : 101) + i) << "byte " << i;
            }
        }
        EXPECT_EQ(neitherOldNorNew > 0, torn == TornByte::randomBits);
    }
}

TEST(FramDeviceTest, makesOneTransferOfEachCall) {
    FramChip chip;
    const FramDevice device(devicePath, chip);
    Bus bus;
    for (const size_t length : {1U, 2U, 20U, 4095U, 4096U, 8192U, 8193U, 20000U}) {
        SCOPED_TRACE(length);
        const size_t moved = std::min(length, size_t{8192});
        Bytes bytes(length);
        chip.clearRecord();
        EXPECT_EQ(bus.write(bytes), static_cast<long>(moved));
        EXPECT_EQ(bus.read(bytes), static_cast<long>(moved));
        EXPECT_EQ(chip.transferCount(), 2U);
        EXPECT_EQ(chip.wireBytes(), 2 * moved);
    }
}

TEST(FramDeviceTest, selectsASlavePerOpenButSharesTheAddressCounter) {
    FramChip chip;
    const FramDevice device(devicePath, chip);
    Bus first;
    Bus second(0);
    Bytes two(2);
    EXPECT_EQ(second.read(two), -ENXIO);
    EXPECT_EQ(second.select(0x51), 0);
    EXPECT_EQ(second.read(two), -ENXIO);
    EXPECT_EQ(second.select(0x80), -EINVAL);
    EXPECT_EQ(second.control(I2C_FUNCS, 0), -ENOTTY);
    EXPECT_EQ(chip.transferCount(), 0U);

    EXPECT_EQ(second.select(chipAddress), 0);
    first.write(writeTransfer(0x40, 4));
    first.write({0x00, 0x40});
    EXPECT_EQ(first.read(two), 2);
    EXPECT_EQ(second.read(two), 2);
    EXPECT_EQ(two, (Bytes{3, 4}));
    const std::vector<Transfer> record = chip.record();
    ASSERT_EQ(record.size(), 4U);
    EXPECT_EQ(record[1].opener, record[2].opener);
    EXPECT_NE(record[2].opener, record[3].opener);
}

TEST(FramDeviceTest, passesTheChipsFaultsOn) {
    FramChip chip;
    const FramDevice device(devicePath, chip);
    chip.refuseOpens();
    EXPECT_EQ(Bus(0).openError(), ENXIO);
    chip.clearFaults();
    Bus bus;
    chip.cutTransfer(1, 4);
    chip.cutPowerAfter(6);
    EXPECT_EQ(bus.write(writeTransfer(0, 18)), 4);
    EXPECT_EQ(bus.write(writeTransfer(0, 18)), -EREMOTEIO);
}

TEST(FramDeviceTest, unmountsAlthoughAClientHoldsTheFileOpen) {
    FramChip chip;
    Bytes two(2);
    auto device = std::make_unique<FramDevice>(devicePath, chip);
    Bus old;
    device.reset();
    EXPECT_FALSE(std::filesystem::exists(devicePath));
    EXPECT_LT(old.read(two), 0);

    const FramDevice again(devicePath, chip);
    EXPECT_EQ(Bus().read(two), 2);
}

/// The program as a child process, serving when the constructor returns.
class FrontEnd : public ChildProcess {
public:
    explicit FrontEnd(std::vector<std::string> options)
        : ChildProcess(testSupport::buildPath("fram-emulator"), withDevice(std::move(options)),
                       {{}, {}, true}) {
        if (!waitForOutput("Serving /dev/i2c-2\n", 20s))
            throw std::runtime_error("the emulator does not serve: " + output());
    }

private:
    static std::vector<std::string> withDevice(std::vector<std::string> options) {
        options.emplace_back(devicePath);
        return options;
    }
};

TEST(FramEmulatorProgramTest, keepsEachStoredByteThoughKilled) {
    const std::vector<std::string> options = {"--image", "/tmp/fram.image"};
    {
        FrontEnd emulator(options);
        ASSERT_EQ(Bus().write(writeTransfer(0x1fff, 2)), 4);
        emulator.kill(SIGKILL);
        ASSERT_EQ(emulator.wait(20s), -SIGKILL);
    }
    const FrontEnd successor(options); // takes over from the dead mount
    Bus bus;
    Bytes two(2);
    bus.write({0x1f, 0xff});
    EXPECT_EQ(bus.read(two), 2);
    EXPECT_EQ(two, (Bytes{1, 2}));
}

TEST(FramEmulatorProgramTest, endsCleanlyOnEachStopSignal) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(signal);
        FrontEnd emulator({});
        const Bus client;
        emulator.kill(signal);
        EXPECT_EQ(emulator.wait(20s), 0);
        EXPECT_FALSE(std::filesystem::exists(devicePath));
    }
}

TEST(FramEmulatorProgramTest, transfersTakeTheirTimeOnTheWire) {
    const FrontEnd emulator({"--clock", "100000", "--trace", "/tmp/fram.trace"});
    Bus bus;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(bus.write(writeTransfer(0x0010, 998)), 1000);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 90110us); // 11 + 9 * 1000 clocks
    const std::string trace = testSupport::readFile("/tmp/fram.trace");
    EXPECT_NE(trace.find(" W 0010 1000 1000 ok\n"), std::string::npos) << trace;
}

TEST(FramEmulatorProgramTest, refusesWhatItCannotServe) {
    testSupport::writeFile("/tmp/short.image", "short");
    const struct {
        std::vector<std::string> arguments;
        int status;
        const char* message;
    } cases[] = {{{"--image", "/tmp/short.image", devicePath}, 1, "has 5 bytes instead of 8192"},
                 {{"/tmp"}, 1, "not a regular file"},
                 {{"--clock", "fast", devicePath}, 2, "--clock needs a number"},
                 {{}, 2, "Exactly one DEVICE"}};
    for (const auto& [arguments, status, message] : cases) {
        const auto result = testSupport::run(testSupport::buildPath("fram-emulator"), arguments);
        EXPECT_EQ(result.status, status);
        EXPECT_NE(result.output.find(message), std::string::npos) << result.output;
    }
}

} // namespace
