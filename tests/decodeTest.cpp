// What is read from the image of a chip: cut off at each byte of each operation, with each bit
// wrong, and in each form of a file.

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <set>

#include "decode/entryText.h"
#include "decode/imageFile.h"
#include "decode/imageReader.h"

using namespace qwk::decode;
using namespace qwk::framLayout;

namespace {

// As in durabilityTest.cpp, otherwise the cuts of a clear are sampled.
bool isFullMatrix() {
    const char* matrix = std::getenv("QUILLWICK_MATRIX");
    return matrix != nullptr && std::string(matrix) == "full";
}

enum class Work { append, flush, clear };
enum class Tear { none, randomBits, warmReset };

// The bytes that the daemon sends for its operations, one by one, and the chip that takes them.
class DecodeTest : public testing::Test {
protected:
    struct Stored {
        std::uint32_t id;
        std::uint32_t size;
        std::string text;
    };

    void write(std::uint32_t address, const std::uint8_t* data, std::uint32_t size) {
        for (std::uint32_t i = 0; i < size; ++i)
            sent.emplace_back(address + i, data[i]);
    }
    void writeHeaders(Header values) {
        header = values;
        for (const std::uint32_t copy : {0U, headerSize})
            write(copy, encodeHeader(header).data(), headerSize);
    }
    void work(Work kind, bool varied) {
        const std::string number = std::to_string(1000 + texts.size());
        const std::size_t filler = varied ? texts.size() * 37 % 330 : 80;
        const std::string message =
            "entry log1 " + number + std::string(filler, 'm') + '\n' + number;
        if (kind == Work::clear)
            return write(0, Image().data(), chipSize);
        if (kind == Work::flush || header.end + entrySize(message) > chipSize)
            writeHeaders({entryAreaStart, 0, header.nextId});
        if (kind == Work::flush)
            return;
        std::uint8_t record[maxEntrySize];
        const std::uint32_t size = encodeEntry(record, 6, 1700000000000000 + texts.size(), message);
        write(appendAt = header.end, record, size);
        Entry entry;
        decodeEntry(record, entry);
        texts[entry.message] = header.nextId;
        writeHeaders({header.end + size, header.count + 1, header.nextId + 1});
    }
    // A chip that was filled with as many entries and flushed, and has as many entries now.
    void fill(std::uint32_t flushed, std::uint32_t cached, bool varied) {
        sent.clear();
        texts.clear();
        image = {};
        header = {entryAreaStart, 0, 0xFFFFFFF0};
        for (std::uint32_t i = 0; i < flushed + cached; ++i) {
            if (i == flushed && flushed > 0)
                work(Work::flush, varied);
            work(Work::append, varied);
        }
        apply(sent.size());
        sent.clear();
    }
    void apply(std::size_t bytes) {
        for (std::size_t i = 0; i < bytes; ++i)
            image.at(sent[i].first) = sent[i].second;
    }
    // The entries in `old` whose bytes are all still there, the remains of earlier fills included.
    std::set<std::string> intactTexts(const Image& old) const {
        std::set<std::string> intact;
        for (std::uint32_t at = entryAreaStart; at + minEntrySize <= chipSize; ++at) {
            const std::uint32_t size = klvLength(&old[at]);
            if (!hasEntryKey(&old[at]) || size > maxEntrySize || at + size > chipSize ||
                !std::equal(&old[at], &old[at] + size, &image[at]))
                continue;
            Entry entry;
            decodeEntry(&old[at], entry);
            intact.insert(entry.message);
        }
        return intact;
    }
    // Each of the entries was stored, under its number where it has one, and comes once. The text
    // of the one that was being stored may be half old, but then it has no number.
    void checkEntries(const std::vector<NumberedEntry>& entries, std::set<std::string>& seen) {
        for (const NumberedEntry& shown : entries) {
            const auto known = texts.find(shown.entry.message);
            if (known == texts.end() && shown.address == appendAt &&
                shown.certainty == Certainty::unknown)
                continue;
            ASSERT_NE(known, texts.end()) << shown.entry.message;
            const std::uint32_t tooHigh = shown.id - known->second;
            ASSERT_TRUE(shown.certainty == Certainty::unknown || tooHigh == 0 ||
                        (shown.certainty == Certainty::about && tooHigh == 1));
            ASSERT_TRUE(seen.insert(shown.entry.message).second) << shown.entry.message;
        }
    }
    // All entries in the cache are there, perhaps with the one that is being appended, or, when a
    // flush may have taken them, among the remains with everything else that is intact.
    void checkCut(const Image& old, std::uint32_t cached, bool mayFlush) {
        const Contents contents = readContents(image);
        std::set<std::string> seen;
        ASSERT_NO_FATAL_FAILURE(checkEntries(contents.entries, seen));
        if (!mayFlush) {
            ASSERT_TRUE(seen.size() == cached || seen.size() == cached + 1) << seen.size();
            for (const NumberedEntry& shown : contents.entries)
                ASSERT_TRUE(shown.certainty == Certainty::certain || cached == 0);
        }
        for (const Section& section : contents.remains)
            ASSERT_NO_FATAL_FAILURE(checkEntries(section.entries, seen));
        for (const std::string& text : intactTexts(old))
            ASSERT_EQ(seen.count(text), 1U) << text;
    }

    Image image{};
    Header header{};
    std::uint32_t appendAt = 0;                 // where the last append stores its record
    std::map<std::string, std::uint32_t> texts; // all ever stored, with their numbers
    std::vector<std::pair<std::uint32_t, std::uint8_t>> sent; // addresses and bytes
};

} // namespace

TEST_F(DecodeTest, afterEachCutEachIntactEntryIsThereAndNoneIsInvented) {
    // Entries that were flushed before, entries in the cache, and the work that is cut.
    const std::tuple<std::uint32_t, std::uint32_t, Work> scenarios[] = {
        {0, 0, Work::append},  {1, 0, Work::append},  {0, 5, Work::append},   {60, 0, Work::append},
        {60, 5, Work::append}, {0, 74, Work::append}, {74, 74, Work::append}, {0, 5, Work::flush},
        {60, 5, Work::flush},  {0, 74, Work::flush},  {0, 5, Work::clear},    {60, 5, Work::clear}};
    std::size_t images = 0;
    for (const auto& [flushed, cached, kind] : scenarios) {
        for (const bool varied : {false, true}) {
            fill(varied ? flushed / 3 : flushed, varied ? cached / 3 : cached, varied);
            const Image old = image;
            const std::uint32_t count = header.count;
            appendAt = 0;
            work(kind, varied);
            const bool mayFlush = kind != Work::append || header.count <= count;
            const std::size_t step = kind == Work::clear && !isFullMatrix() ? 7 : 1;
            for (std::size_t at = 0; at <= sent.size(); at += step) {
                for (const Tear tear : {Tear::none, Tear::randomBits, Tear::warmReset}) {
                    SCOPED_TRACE(testing::Message()
                                 << flushed << " flushed, " << cached << " cached, work "
                                 << static_cast<int>(kind) << " cut after byte " << at << ", tear "
                                 << static_cast<int>(tear) << ", varied " << varied);
                    image = old;
                    apply(at);
                    const std::uint32_t last = at > 0 ? sent[at - 1].first : chipSize;
                    if (tear == Tear::randomBits && at > 0)
                        image.at(last) ^= static_cast<std::uint8_t>(1 + at * 37 % 255);
                    if (tear == Tear::warmReset && last + 1 < chipSize)
                        image.at(last + 1) = 0xFF;
                    ASSERT_NO_FATAL_FAILURE(checkCut(old, count, mayFlush));
                    ++images;
                }
            }
        }
    }
    std::printf("%zu images of cuts\n", images);
}

TEST_F(DecodeTest, aWrongBitCostsNoEntryButTheOneThatHasIt) {
    for (const bool varied : {false, true}) {
        fill(0, varied ? 40 : 74, varied);
        const Image old = image;
        const auto all = readContents(old);
        ASSERT_TRUE(all.damage.empty() && all.entries.size() == header.count);
        for (std::uint32_t bit = 0; bit < header.end * 8; ++bit) {
            SCOPED_TRACE(bit);
            image = old;
            image.at(bit / 8) ^= static_cast<std::uint8_t>(1U << bit % 8);
            const auto found = readContents(image);
            ASSERT_EQ(found.entries.size(), header.count);
            for (std::size_t i = 0; i < header.count; ++i) {
                const NumberedEntry& entry = found.entries[i];
                const std::uint32_t at = all.entries[i].address;
                ASSERT_TRUE(entry.address == at && entry.id == all.entries[i].id &&
                            entry.certainty == Certainty::certain);
                // The time and the message are the only fields that no other tells.
                const bool isUntold = bit / 8 >= at + timeAt && bit / 8 < at + klvLength(&old[at]);
                ASSERT_TRUE(isUntold || entry.entry.message == all.entries[i].entry.message);
            }
        }
    }
}

TEST_F(DecodeTest, damagedHeadersTellWhatTheyStillCan) {
    // The bytes that are overwritten, and how certain the numbers then are.
    const std::tuple<std::vector<std::uint32_t>, Certainty> cases[] = {
        {{16}, Certainty::certain},     {{30}, Certainty::certain},
        {{16, 19}, Certainty::certain}, {{1, 23, 34}, Certainty::certain},
        {{16, 34}, Certainty::about},   {{12, 34}, Certainty::unknown},
        {{7, 34}, Certainty::unknown},  {{9, 27}, Certainty::unknown}};
    fill(60, 5, true);
    const Image old = image;
    const auto all = readContents(old).entries;
    for (const auto& [places, certainty] : cases) {
        SCOPED_TRACE(places.front());
        image = old;
        for (const std::uint32_t place : places)
            image.at(place) ^= 0x10;
        const auto found = readContents(image);
        ASSERT_FALSE(found.damage.empty());
        ASSERT_GE(found.entries.size(), all.size());
        for (std::size_t i = 0; i < all.size(); ++i)
            ASSERT_TRUE(found.entries[i].certainty == certainty &&
                        found.entries[i].entry.message == all[i].entry.message &&
                        (certainty == Certainty::unknown || found.entries[i].id == all[i].id));
    }
}

TEST_F(DecodeTest, allFormsOfAFileGiveTheSameImageAndOthersAreRefused) {
    fill(60, 5, true);
    const std::string raw(image.begin(), image.end());
    std::string dump;
    std::string numbers;
    char text[16];
    for (std::size_t at = 0; at < raw.size(); ++at) {
        const unsigned byte = image.at(at);
        std::snprintf(text, sizeof text, at % 16 == 0 ? "%04zx " : "", at);
        dump +=
            text + std::string(" ") + "0123456789abcdef"[byte / 16] + "0123456789abcdef"[byte % 16];
        dump += at % 16 == 15 ? "  0000  68 64 72 31\r\n" : "";
        std::snprintf(text, sizeof text, "0x%02x%c", byte, at == 8191 ? '\n' : ' ');
        numbers += text;
    }
    const std::string line = dump.substr(0, dump.size() / 512);
    std::string error;
    for (const std::string& form : {raw, dump, numbers, "\n" + dump + "\n", " " + numbers})
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
        {"\u009b2J", "\\xc2\\x9b2J"}, // a control character of the second set
        {"\x9b"
         "2J\xff",
         "\\x9b2J\\xff"},                                          // no UTF-8
        {"\xc0\x9b|\xe0\x80\x9b|", "\\xc0\\x9b|\\xe0\\x80\\x9b|"}, // longer than need be
        {"\xed\xa0\x80|\xf4\x90\x80\x80|", "\\xed\\xa0\\x80|\\xf4\\x90\\x80\\x80|"},
        {"cut \xe2\x82", "cut \\xe2\\x82"}};
    for (const auto& [text, shown] : cases)
        EXPECT_EQ(harmless(text), shown);
}
