// Any file as an image, and any bytes over records under headers, against the daemon's own walk.
#include <algorithm>
#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>

#include "decode/entryText.h"
#include "decode/imageFile.h"
#include "decode/imageReader.h"

using namespace qwk::decode;
using namespace qwk::framLayout;

// Ends the program, which keeps the input.
static void require(bool condition) {
    if (!condition)
        std::abort();
}

// Every entry is in the image, and none overlaps the one before.
static void requireInImage(const Image& image, const std::vector<NumberedEntry>& entries) {
    std::size_t end = 0;
    for (const auto& [address, certainty, id, entry] : entries) {
        require(address >= end && address + messageAt + entry.message.size() <= chipSize);
        require(
            std::equal(entry.message.begin(), entry.message.end(), &image[address] + messageAt,
                       [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; }));
        end = address + messageAt + entry.message.size();
    }
}

// Where the daemon reads the whole cache, the same entries with the same numbers are shown.
static void requireAsDaemon(const Image& image, const std::vector<NumberedEntry>& shown) {
    const Header header = decodeHeader(image.data());
    std::uint32_t at = entryAreaStart;
    std::uint32_t count = 0;
    const auto canRead = [&] {
        return at + minEntrySize <= header.end && hasEntryKey(&image[at]) &&
               klvLength(&image[at]) >= minEntrySize && klvLength(&image[at]) <= maxEntrySize;
    };
    for (; canRead(); at += klvLength(&image[at]))
        ++count;
    if (at != header.end)
        return;
    require(shown.size() == count);
    for (std::uint32_t i = 0; i < count; ++i)
        require(shown[i].certainty == Certainty::certain &&
                shown[i].id == header.nextId - header.count + i);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const auto word = [&] { return input.ConsumeIntegral<std::uint16_t>(); };
    const unsigned choice = input.ConsumeIntegral<std::uint8_t>();
    Image image{};
    std::uint32_t end = entryAreaStart;
    for (std::uint32_t records = choice >> 2; records > 0; --records)
        end += encodeEntry(&image[end], 4, std::uint64_t{records} << 40, std::string(records, 'm'));
    if (const unsigned other = word(); other % 4 == 0)
        end = other >> 3;
    for (const std::uint32_t copy : {0U, headerSize}) {
        const auto block = encodeHeader({end, choice >> 2, word()});
        std::copy(block.begin(), block.end(), image.begin() + copy);
    }
    while ((choice & 1) != 0 && input.remaining_bytes() > 4) {
        const std::size_t place = word() % chipSize;
        for (const std::uint8_t byte : input.ConsumeBytes<std::uint8_t>(word() % 24))
            image[std::min<std::size_t>(place + byte % 24, chipSize - 1)] = byte;
    }
    std::string error;
    const std::string rest = input.ConsumeRemainingBytesAsString();
    if (const auto parsed = parseImage(rest, error))
        image = *parsed;
    const Contents contents = readContents(image);
    requireInImage(image, contents.entries);
    for (const Section& section : contents.remains)
        requireInImage(image, section.entries);
    if (isValidHeader(image.data()) && decodeHeader(image.data()).end <= chipSize)
        requireAsDaemon(image, contents.entries);
    const std::string shown = harmless(entriesText(contents.entries, qwk::TimeZone::utc) +
                                       sectionsText(contents.remains, qwk::TimeZone::utc) + rest);
    require(shown == harmless(shown) && shown.find('\x1b') == std::string::npos);
    return 0;
}
