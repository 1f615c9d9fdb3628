// Byte access to a memory chip: which transfers reach it, and what becomes of those that fail.

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "support/board.h"

using namespace testSupport;

namespace {

using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;

class Chip : public boardSupport::EepromBase {
public:
    explicit Chip(std::int32_t bytes = 8192, std::int32_t page = 0, std::uint32_t base = 0,
                  const std::string& device = "/dev/i2c-2", int slaveAddress = 0x50)
        : EepromBase(device, slaveAddress) {
        size = bytes;
        pageSize = page;
        offset = base;
    }
    bool isOpen() const { return fd >= 0; }
    std::string dump() {
        char* text = nullptr;
        std::size_t length = 0;
        std::FILE* file = open_memstream(&text, &length);
        EXPECT_EQ(hexDump(file), 0);
        const std::string printed(text, length); // valid, for the dump is flushed
        std::fclose(file);
        std::free(text);
        return printed;
    }
};

Bytes pattern(std::size_t length) {
    Bytes bytes;
    while (bytes.size() < length)
        bytes.push_back(static_cast<std::uint8_t>(1 + bytes.size() % 251));
    return bytes;
}

class ChipAccessTest : public Board {
protected:
    // The transfers since the last call: w or r, the address, the length with a write's address.
    std::string transfers() {
        std::string text;
        for (const framEmulator::Transfer& transfer : chip.record()) {
            text += transfer.kind == framEmulator::TransferKind::write ? " w" : " r";
            text += std::to_string(transfer.address) + ":" + std::to_string(transfer.requested);
        }
        chip.clearRecord();
        return text;
    }
};

} // namespace

TEST_F(ChipAccessTest, rangesBecomeTransfersOfAtMost4096Bytes) {
    struct Case {
        std::int32_t size, page;
        std::uint32_t base;
        std::uint16_t address, length;
        int written;
        const char *writing, *reading;
    };
    const Case cases[] = {
        {8192, 0, 0, 0, 8192, 8192, " w0:4096 w4094:4096 w8188:6", " w0:2 r0:4096 r4096:4096"},
        {8192, 0, 0, 4000, 200, 200, " w4000:96 w4094:108", " w4000:2 r4000:200"},
        {8192, 0, 0, 4094, 4094, 4094, " w4094:4096", " w4094:2 r4094:4094"},
        {8192, 0, 0, 9, 4097, 4097, " w9:4087 w4094:14", " w9:2 r9:4096 r4105:1"},
        {8192, 0, 0, 8191, 1, 1, " w8191:3", " w8191:2 r8191:1"},
        {8192, 0, 0, 8191, 2, -1, "", " w8191:2 r8191:2"},
        {8192, 0, 0, 65535, 2, -1, "", " w8191:2 r8191:2"},
        {8192, 0, 0, 7, 0, 0, "", " w7:2"},
        {8192, 0, 65535, 8191, 1, 1, " w8190:3", " w8190:2 r8190:1"},
        {0, 0, 0, 0, 1, -1, "", " w0:2 r0:1"},
        {8192, 32, 0, 20, 50, 50, " w20:14 w32:34 w64:8", " w20:2 r20:50"},
        {8192, 32, 16, 8, 20, 20, " w24:10 w32:14", " w24:2 r24:20"},
        // The base address wraps at 65536, before the range is cut.
        {8192, 24, 65520, 32, 20, 20, " w16:10 w24:14", " w16:2 r16:20"},
        {8192, 0, 65520, 32, 4090, 4090, " w16:4080 w4094:14", " w16:2 r16:4090"}};
    for (const Case& one : cases) {
        SCOPED_TRACE(&one - cases);
        Chip access(one.size, one.page, one.base);
        const Bytes data = pattern(one.length);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(access.write(one.address, data.data(), one.length), one.written);
        const auto lasted = std::chrono::steady_clock::now() - begin;
        const std::string writing = transfers();
        EXPECT_EQ(writing, one.writing);
        const auto pause = one.page == 0 ? 0ms : 10ms; // behind each page
        EXPECT_GE(lasted, pause * std::count(writing.begin(), writing.end(), 'w'));
        Bytes back(one.length);
        EXPECT_EQ(access.read(one.address, back.data(), one.length), one.length);
        EXPECT_EQ(transfers(), one.reading);
        EXPECT_TRUE(one.written < 0 || back == data);
    }
    EXPECT_TRUE(said().empty());
}

TEST_F(ChipAccessTest, theFirstFailedOrShortTransferEndsTheOperation) {
    const Bytes data = pattern(8192);
    Bytes back(8192);
    Chip access(8200, 0, 65536 - 8);
    Chip paged(8192, 2048);
    for (const bool isShort : {false, true}) {
        for (const std::size_t which : {1U, 2U, 3U}) {
            SCOPED_TRACE(which);
            const auto expectFailure = [&](const auto& operation) {
                chip.clearFaults();
                isShort ? chip.cutTransfer(which, 1) : chip.failTransfer(which);
                transfers();
                EXPECT_EQ(operation(), -1);
                const std::string done = transfers();
                EXPECT_EQ(std::count(done.begin(), done.end(), ' '), which) << done;
            };
            chip.setImage({});
            expectFailure([&] { return access.write(10, data.data(), 8190); });
            EXPECT_EQ(said(), Texts{"Writing of 8190 bytes at address 2 failed."});
            const std::size_t kept[] = {0, 4092, 4092 + 4094};
            EXPECT_EQ(bytes(2, kept[which - 1]), pattern(kept[which - 1]));

            const auto begin = std::chrono::steady_clock::now();
            expectFailure([&] { return paged.write(0, data.data(), 8192); });
            EXPECT_GE(std::chrono::steady_clock::now() - begin, 10ms * which);
            EXPECT_EQ(said(), Texts{"Writing of 8192 bytes at address 0 failed."});

            expectFailure([&] { return access.read(0, back.data(), 8192); });
            expectFailure([&] { return Chip().dump() == "" ? -1 : 0; });
            EXPECT_TRUE(said().empty());
        }
    }
}

TEST_F(ChipAccessTest, theChecksumIsThePublishedOne) {
    const auto crc = boardSupport::EepromBase::crc32;
    const Bytes digits = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    const Bytes header = {0x68, 0x64, 0x72, 0x31, 0, 0x12, 0, 0x24, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(crc(digits.data(), 9, 0xFFFFFFFF, true), 0xCBF43926);
    EXPECT_EQ(crc(digits.data() + 4, 5, crc(digits.data(), 4, 0xFFFFFFFF, false), true),
              0xCBF43926);
    EXPECT_EQ(crc(header.data(), 14, 0xFFFFFFFF, true), 0x3824A4DF);
    EXPECT_EQ(crc(header.data(), 0, 0x12345678, false), 0x12345678U);
}

TEST_F(ChipAccessTest, dumpsShowEachByteTwice) {
    poke(0, {0x68, 0x64, 0x72, 0x31, 0, 0x12, 0, 0x24, 0, 0, 0, 0, 0, 0, 0x38, 0x24});
    poke(16, {0x1F, 0x20, 0x7E, 0x7F, 0x80, 0xFF, 'A'});
    const std::string first =
        "0000  68 64 72 31 00 12 00 24 00 00 00 00 00 00 38 24  hdr1...$......8$\n";
    const std::string second =
        "0010  1f 20 7e 7f 80 ff 41 00 00 00 00 00 00 00 00 00  . ~...A.........\n";
    EXPECT_EQ(Chip(16).dump(), first);
    EXPECT_EQ(Chip(23).dump(), first + second.substr(0, 26) + std::string(27, ' ') + "  . ~...A\n");
    for (const auto& [size, lines] : {std::pair(32, 2U), {0, 64U}, {8192, 512U}}) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(Chip(size).hexDump(nullptr), 0);
        const std::string dump = testing::internal::GetCapturedStdout();
        EXPECT_EQ(dump.substr(0, 2 * first.size()), first + second);
        ASSERT_EQ(dump.size(), lines * first.size());
        for (unsigned i = 0; i < lines; ++i)
            EXPECT_EQ(std::stoul(dump.substr(i * first.size(), 4), nullptr, 16), 16 * i);
    }
    EXPECT_EQ(Chip(16, 0, 16).dump().substr(4), second.substr(4));
}

TEST_F(ChipAccessTest, unreachableChipsFailEveryOperation) {
    const std::string none = "/dev/i2c-none", there = "/dev/i2c-2",
                      refused = "Cannot access address ";
    const std::tuple<std::string, int, bool, Texts> cases[] = {
        {none, 80, false, {"Error opening I2C Device: " + none, refused + "80 at " + none}},
        {there, 300, true, {refused + "300 at " + there}},
        {there, 81, true, {}}};
    const auto descriptors = [] {
        using Directory = std::filesystem::directory_iterator;
        return std::distance(Directory("/proc/self/fd"), Directory());
    };
    said(); // opens the one to say it
    const auto before = descriptors();
    for (const auto& [name, slaveAddress, opens, diagnostics] : cases) {
        Chip access(8192, 0, 0, name, slaveAddress);
        EXPECT_EQ(access.isOpen(), opens) << name;
        EXPECT_EQ(said(), diagnostics);
        std::uint8_t byte = 0;
        EXPECT_EQ(access.read(0, &byte, 1), -1);
        EXPECT_TRUE(said().empty());
        EXPECT_EQ(access.write(5, &byte, 1), -1);
        EXPECT_EQ(said(), Texts{"Writing of 1 bytes at address 5 failed."});
        EXPECT_EQ(access.dump(), "");
        EXPECT_EQ(chip.transferCount(), 0U);
    }
    EXPECT_EQ(descriptors(), before);
}
