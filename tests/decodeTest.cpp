// Reading the image of a chip, with each bit wrong and in each form of a file. durabilityTest
// covers images of operations that were cut off.

#include <algorithm>
#include <gtest/gtest.h>

#include "decode/entryText.h"

using namespace qwk::decode;
using namespace qwk::framLayout;

namespace {

class DecodeTest : public testing::Test {
protected:
    // A chip with so many entries that were flushed and so many in the cache, if they fit.
    void fill(std::uint32_t flushed, std::uint32_t cached) {
        image = {};
        header = {entryAreaStart, 0, 0xFFFFFFF0};
        for (std::uint32_t i = 0; i < flushed + cached; ++i) {
            if (i == flushed)
                header = {entryAreaStart, 0, header.nextId};
            append(i);
        }
        for (const std::uint32_t copy : {0U, headerSize})
            std::copy_n(encodeHeader(header).begin(), headerSize, image.begin() + copy);
    }

    bool varied = false; // in length
    Image image{};
    Header header{};

private:
    void append(std::uint32_t i) {
        const std::string number = std::to_string(1000 + i);
        const std::string text =
            "entry log1 " + number + std::string(varied ? i * 37 % 330 : 80, 'm') + '\n' + number;
        if (header.end + entrySize(text) > chipSize)
            header = {entryAreaStart, 0, header.nextId};
        const auto size = encodeEntry(&image.at(header.end), 6, 1700000000000000 + i, text);
        header = {header.end + size, header.count + 1, header.nextId + 1};
    }
};

} // namespace

TEST_F(DecodeTest, aWrongBitCostsNoEntryButTheOneThatHasIt) {
    for (const std::uint32_t entries : {74U, 40U}) {
        varied = entries == 40;
        fill(0, entries);
        const Image old = image;
        const auto all = readContents(old);
        ASSERT_TRUE(all.damage.empty() && all.entries.size() == header.count);
        for (std::uint32_t bit = 0; bit < header.end * 8; ++bit) {
            SCOPED_TRACE(bit);
            image = old;
            image.at(bit / 8) ^= static_cast<std::uint8_t>(1U << bit % 8);
            const auto found = readContents(image).entries;
            ASSERT_EQ(found.size(), header.count);
            for (std::size_t i = 0; i < found.size(); ++i) {
                const auto& [at, certainty, id, entry] = all.entries[i];
                ASSERT_TRUE(found[i].address == at && found[i].id == id);
                ASSERT_EQ(found[i].certainty, Certainty::certain);
                // Nothing else tells the time and the message.
                const bool isLost = bit / 8 >= at + timeAt && bit / 8 < at + klvLength(&old[at]);
                ASSERT_TRUE(isLost || found[i].entry.message == entry.message);
            }
        }
    }
}

TEST_F(DecodeTest, damagedHeadersTellWhatTheyStillCan) {
    // The wrong bytes, and how certain the numbers then are.
    const std::pair<std::vector<std::uint32_t>, Certainty> cases[] = {
        {{16, 19}, Certainty::certain}, {{1, 23, 34}, Certainty::certain},
        {{16, 34}, Certainty::about},   {{12, 34}, Certainty::unknown},
        {{7, 34}, Certainty::unknown},  {{9, 27}, Certainty::unknown}};
    varied = true;
    fill(60, 5);
    const Image old = image;
    const auto all = readContents(old).entries;
    for (const auto& [places, certainty] : cases) {
        SCOPED_TRACE(places.front());
        image = old;
        for (const std::uint32_t place : places)
            image.at(place) ^= 0x10;
        const auto found = readContents(image).entries;
        ASSERT_GE(found.size(), all.size());
        for (std::size_t i = 0; i < all.size(); ++i) {
            ASSERT_EQ(found[i].certainty, certainty);
            ASSERT_EQ(found[i].entry.message, all[i].entry.message);
            ASSERT_TRUE(certainty == Certainty::unknown || found[i].id == all[i].id);
        }
    }
}

TEST_F(DecodeTest, allFormsOfAFileGiveTheSameImageAndOthersAreRefused) {
    fill(60, 5);
    const std::string raw(image.begin(), image.end());
    std::string dump;
    std::string numbers;
    char text[16];
    for (std::size_t at = 0; at < raw.size(); ++at) {
        std::snprintf(text, sizeof text, "0x%02x ", image.at(at));
        numbers += text;
        dump +=
            std::string(" ") + text[2] + text[3] + (at % 16 == 15 ? "  hdr1.... 68 64\r\n" : "");
        std::snprintf(text, sizeof text, "%04zx ", at);
        if (at % 16 == 0)
            dump.insert(dump.size() - 3, text);
    }
    const std::string line = dump.substr(0, dump.size() / 512);
    std::string error;
    for (const std::string& form : {raw, dump, numbers, "\n" + dump + "\n", "\n" + numbers + "\n"})
        EXPECT_EQ(parseImage(form, error), image) << error;
    const std::pair<std::string, const char*> refused[] = {
        {"", "is empty"},
        {raw.substr(1), "8191 bytes"},
        {raw + "\n", "8193 bytes"},
        {dump.substr(0, 300 * line.size()), "address 0x12c0 is missing"},
        {dump.substr(0, dump.size() - 40), "Line 512 is not"},
        {line + dump, "Line 2 is not the dump of the 16 bytes at 0x0010"},
        {dump + line, "Line 513 follows"},
        {line.substr(0, 6) + "g" + dump.substr(7), "Line 1 is not"},
        {numbers.substr(5), "8191 bytes"},
        {numbers + "0x00", "8193 bytes"},
        {numbers + "0x1", "Number 8193"},
        {"[00000000] no image", "neither a dump"},
        {std::string(1000000, '0'), "too long"}};
    for (const auto& [content, reason] : refused) {
        EXPECT_EQ(parseImage(content, error), std::nullopt) << reason;
        EXPECT_NE(error.find(reason), std::string::npos) << error;
    }
}

TEST_F(DecodeTest, aTerminalGetsNoCommands) {
    const std::pair<std::string, std::string> cases[] = {
        {"plain\ttext\n", "plain\ttext\n"},
        {"\x1b[2J\r\a\x7f", "\\x1b[2J\\x0d\\x07\\x7f"},
        {"\u00e4 \u20ac \U0001f600 \u00a0", "\u00e4 \u20ac \U0001f600 \u00a0"},
        {"\u009b2J \xff", "\\xc2\\x9b2J \\xff"},
        {"\xc0\x9b|\xe0\x80\x9b|", "\\xc0\\x9b|\\xe0\\x80\\x9b|"}, // longer than need be
        {"\xed\xa0\x80|\xf4\x90\x80\x80|", "\\xed\\xa0\\x80|\\xf4\\x90\\x80\\x80|"},
        {"cut \xe2\x82", "cut \\xe2\\x82"}};
    for (const auto& [text, shown] : cases)
        EXPECT_EQ(harmless(text), shown);
}
