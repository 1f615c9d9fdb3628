// Any bytes over a few records, bare or under headers with a right checksum, and each operation.
#include <fuzzer/FuzzedDataProvider.h>

#include "support/board.h"

using namespace qwk::framLayout;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static framEmulator::FramChip chip;
    static const framEmulator::FramDevice device(qwk::eepromDevicePath, chip);
    static std::FILE* const devNull = std::fopen("/dev/null", "w");
    chip.setRecording(false);
    FuzzedDataProvider input(data, size);
    const unsigned choice = input.ConsumeIntegral<std::uint8_t>();
    const auto word = [&] { return input.ConsumeIntegral<std::uint16_t>(); };
    framEmulator::Image image{};
    std::uint32_t end = entryAreaStart;
    for (unsigned records = choice >> 4; records > 0; --records)
        end += encodeEntry(&image[end], 6, 0, std::string(records * 20, 'm'));
    const auto header =
        encodeHeader({end + word(), word(), input.ConsumeIntegral<std::uint32_t>()});
    const std::size_t at = word() % chipSize;
    const std::string content = input.ConsumeBytesAsString(chipSize - at);
    std::copy(content.begin(), content.end(), &image[at]);
    for (const unsigned copy : {0U, 1U})
        if ((choice >> copy & 1) != 0)
            std::copy(header.begin(), header.end(), &image[copy * headerSize]);
    chip.setImage(image);
    testSupport::RecordingSink sink;
    qwk::Eeprom eeprom(qwk::eepromDevicePath, qwk::eepromSlaveAddress, &sink);
    const std::vector<testSupport::Line> loaded = sink.recent;
    const auto isEmptyCache = [&] { // copy 1 may be an older one where a flush had no work
        image = chip.image();
        const auto empty = encodeHeader({entryAreaStart, 0, decodeHeader(image.data()).nextId});
        return std::equal(empty.begin(), empty.end(), image.begin()) &&
               storedCrc(&image[headerSize]) == computedCrc(&image[headerSize]);
    };
    if ((choice & 4) != 0)
        eeprom.append(6, 0, content);
    eeprom.hexDump(devNull);
    if (eeprom.flush() == 0)
        EXPECT_TRUE(isEmptyCache() && ((choice & 4) != 0 || sink.written == loaded));
    eeprom.append(6, 0, content);
    EXPECT_TRUE(eeprom.flush() == 0 && isEmptyCache());
    EXPECT_TRUE(eeprom.clear() == 0 && chip.image() == framEmulator::Image());
    return 0;
}
