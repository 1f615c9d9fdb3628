// Byte access to a memory chip: the transfers that reach it, and the results of those that fail.

#include <numeric>
#include <tuple>

#include "support/board.h"

using namespace testSupport;

namespace {

struct Chip : boardSupport::EepromBase {
    explicit Chip(std::int32_t bytes = 8192, std::int32_t page = 0, std::uint32_t base = 0,
                  const std::string& device = qwk::eepromDevicePath,
                  int slaveAddress = qwk::eepromSlaveAddress)
        : EepromBase(device, slaveAddress) {
        size = bytes;
        pageSize = page;
        offset = base;
    }
    std::string dump() {
        const File file(std::fopen("/tmp/dump", "w"), std::fclose);
        EXPECT_EQ(hexDump(file.get()), 0);
        return readFile("/tmp/dump"); // it is flushed
    }
};

using ChipAccessTest = Board;

} // namespace

TEST_F(ChipAccessTest, rangesBecomeTransfersOfAtMost4096Bytes) {
    // The chip's size, page and base; the range; whether it can be written; all transfers.
    const std::tuple<int, int, unsigned, std::uint16_t, std::uint16_t, bool, std::string> cases[] =
        {{8192, 0, 0, 0, 8192, true, " w0:4096 w4094:4096 w8188:6 w0:2 r0:4096 r4096:4096"},
         {8192, 0, 0, 4094, 4094, true, " w4094:4096 w4094:2 r4094:4094"},
         {8192, 0, 0, 9, 4097, true, " w9:4087 w4094:14 w9:2 r9:4096 r4105:1"},
         {8192, 0, 0, 8191, 1, true, " w8191:3 w8191:2 r8191:1"},
         {8192, 0, 0, 8191, 2, false, " w8191:2 r8191:2"},
         {8192, 0, 0, 7, 0, true, " w7:2"},
         {8192, 0, 65535, 8191, 1, true, " w8190:3 w8190:2 r8190:1"},
         {0, 0, 0, 0, 1, false, " w0:2 r0:1"},
         {8192, 32, 16, 4, 50, true, " w20:14 w32:34 w64:8 w20:2 r20:50"},
         // The base address wraps at 65536, before the range is cut.
         {8192, 24, 65520, 32, 20, true, " w16:10 w24:14 w16:2 r16:20"}};
    for (const auto& [size, page, base, address, length, isWritten, expected] : cases) {
        SCOPED_TRACE(expected);
        Chip access(size, page, base);
        Bytes data(length), back(length);
        std::iota(data.begin(), data.end(), 1);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(access.write(address, data.data(), length), isWritten ? length : -1);
        const auto pause = 10ms * static_cast<int>(page > 0 ? chip.transferCount() : 0);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, pause);
        EXPECT_EQ(access.read(address, back.data(), length), length);
        EXPECT_EQ(transfers(), expected);
        EXPECT_TRUE(!isWritten || back == data);
    }
    EXPECT_EQ(takeDiagnostics(), "");
}

TEST_F(ChipAccessTest, theFirstFailedTransferEndsTheOperation) {
    const Bytes data(8192, 1);
    Chip access(8200, 0, 65536 - 8), paged(8192, 2048);
    // The failing transfer, and the bytes that the ones before it have stored.
    for (const auto& [number, kept] : {std::pair(1U, 0U), {2U, 4092U}, {3U, 8186U}}) {
        chip.setImage({});
        chip.failTransfer(number);
        EXPECT_EQ(access.write(10, data.data(), 8190), -1);
        EXPECT_TRUE(bytes(2, kept) == Bytes(kept, 1) && bytes(2 + kept, 1) == Bytes{0});
        chip.failTransfer(number);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(paged.write(0, data.data(), 8192), -1);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, 10ms * number);
        EXPECT_EQ(chip.transferCount(), 2 * number);
        chip.clearRecord();
        EXPECT_EQ(takeDiagnostics(), "Writing of 8190 bytes at address 2 failed.|"
                                     "Writing of 8192 bytes at address 0 failed.|");
    }
}

TEST_F(ChipAccessTest, theChecksumIsThePublishedOne) {
    const auto crc = boardSupport::EepromBase::crc32;
    const Bytes digits = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(crc(&digits[4], 5, crc(&digits[0], 4, 0xFFFFFFFF, false), true), 0xCBF43926);
}

TEST_F(ChipAccessTest, dumpsShowEachByteTwice) {
    poke(0, {0x68, 0x64, 0x72, 0x31, 0, 0x12, 0, 0x24, 0, 0, 0, 0, 0, 0, 0x38, 0x24});
    poke(16, {0x1F, 0x20, 0x7E, 0x7F, 0x80, 0xFF, 'A'});
    const std::string first =
        "0000  68 64 72 31 00 12 00 24 00 00 00 00 00 00 38 24  hdr1...$......8$\n";
    const std::string second =
        "0010  1f 20 7e 7f 80 ff 41 00 00 00 00 00 00 00 00 00  . ~...A.........\n";
    EXPECT_EQ(Chip(23).dump(), first + second.substr(0, 26) + std::string(27, ' ') + "  . ~...A\n");
    // Beyond the chip its address counter wraps.
    for (const auto& [size, lines] : {std::pair(0, 64U), {8192, 512U}, {65536, 4096U}}) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(Chip(size).hexDump(nullptr), 0);
        const std::string dump = testing::internal::GetCapturedStdout();
        EXPECT_EQ(dump.substr(0, 2 * first.size()), first + second);
        ASSERT_EQ(dump.size(), lines * first.size());
        EXPECT_EQ(std::stoul(dump.substr(dump.size() - first.size()), nullptr, 16),
                  16 * lines - 16);
    }
}

TEST_F(ChipAccessTest, unreachableChipsFailEveryOperation) {
    const std::tuple<std::string, int, bool, std::string> cases[] = {
        {"/dev/none", 80, false,
         "Error opening I2C Device: /dev/none|Cannot access address 80 at /dev/none|"},
        {qwk::eepromDevicePath, 300, true, "Cannot access address 300 at /dev/i2c-2|"},
        {qwk::eepromDevicePath, 81, true, ""}};
    takeDiagnostics(); // opens the socket of the diagnostics
    const int first = Chip().fd;
    for (const auto& [name, slaveAddress, opens, diagnostics] : cases) {
        Chip access(8192, 0, 0, name, slaveAddress);
        EXPECT_EQ(access.fd >= 0, opens) << name;
        std::uint8_t byte = 0;
        EXPECT_TRUE(access.read(0, &byte, 1) == -1 && access.write(5, &byte, 1) == -1);
        EXPECT_EQ(access.dump(), "");
        EXPECT_EQ(takeDiagnostics(), diagnostics + "Writing of 1 bytes at address 5 failed.|");
        EXPECT_EQ(chip.transferCount(), 0U);
    }
    EXPECT_EQ(Chip().fd, first); // none was left open
}
