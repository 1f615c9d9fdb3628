// Any file, and any bytes over a few records and their headers. The output comes from the image,
// each byte once, and does a terminal no harm.
#include <algorithm>
#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>

#include "decode/entryText.h"

using namespace qwk::decode;
using namespace qwk::framLayout;

// Ends the program, which keeps the input.
static void require(bool condition) {
    if (!condition)
        std::abort();
}

static void requireInImage(const Image& image, const std::vector<NumberedEntry>& entries) {
    std::size_t end = 0;
    for (const NumberedEntry& shown : entries) {
        const std::string& text = shown.entry.message;
        const std::size_t start = shown.address + messageAt;
        require(shown.address >= end && start + text.size() <= chipSize);
        end = start + text.size();
        require(text == std::string(&image[start], &image[start] + text.size()));
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const auto word = [&] { return input.ConsumeIntegral<std::uint16_t>(); };
    Image image{};
    std::uint32_t end = entryAreaStart;
    const std::uint32_t count = word() % 64;
    for (std::uint32_t i = 0; i < count; ++i)
        end += encodeEntry(&image[end], 4, std::uint64_t{i} << 40, std::string(i, 'm'));
    for (const std::uint32_t copy : {0U, headerSize}) {
        const std::uint32_t other = word();
        const auto block = encodeHeader({other % 4 == 0 ? other >> 3 : end, count, word()});
        std::copy(block.begin(), block.end(), image.begin() + copy);
    }
    for (unsigned patches = word() % 8; patches > 0; --patches) {
        const auto patch = input.ConsumeBytes<std::uint8_t>(word() % 40);
        std::copy(patch.begin(), patch.end(), image.begin() + word() % (chipSize - 40));
    }
    std::string error;
    const std::string file = input.ConsumeRemainingBytesAsString();
    static_cast<void>(parseImage(file, error));
    const Contents contents = readContents(image);
    requireInImage(image, contents.entries);
    for (const Section& section : contents.remains)
        requireInImage(image, section.entries);
    const std::string text = harmless(entriesText(contents.entries, qwk::TimeZone::utc) +
                                      sectionsText(contents.remains, qwk::TimeZone::utc) + file);
    require(text == harmless(text) && text.find_first_of("\x1b\r\x7f") == std::string::npos);
    return 0;
}
