// What is read from the image of a chip: cut off at each byte of each operation, with each bit
// wrong, and in each form of a file. QUILLWICK_MATRIX=full cuts a clear at every byte, too.

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <set>

#include "decode/entryText.h"

using namespace qwk::decode;
using namespace qwk::framLayout;

namespace {

enum class Work { append, flush, clear };
enum class Tear { none, randomBits, warmReset };
using Bytes = std::vector<std::pair<std::uint32_t, std::uint8_t>>; // with their addresses

// A chip, and the bytes that the daemon sends to it for its operations.
class DecodeTest : public testing::Test {
protected:
    static void add(Bytes& sent, std::uint32_t address, const std::uint8_t* data,
                    std::size_t size) {
        for (const std::uint8_t* byte = data; byte < data + size; ++byte)
            sent.emplace_back(address++, *byte);
    }
    void addHeaders(Bytes& sent, Header values) {
        header = values;
        for (const std::uint32_t copy : {0U, headerSize})
            add(sent, copy, encodeHeader(header).data(), headerSize);
    }
    Bytes append() {
        Bytes sent;
        const std::string number = std::to_string(1000 + texts.size());
        const std::string text = "entry log1 " + number +
                                 std::string(varied ? texts.size() * 37 % 330 : 80, 'm') + '\n' +
                                 number;
        if (header.end + entrySize(text) > chipSize)
            addHeaders(sent, {entryAreaStart, 0, header.nextId});
        std::uint8_t record[maxEntrySize];
        const auto size = encodeEntry(record, 6, 1700000000000000 + texts.size(), text);
        add(sent, appendAt = header.end, record, size);
        Entry entry;
        decodeEntry(record, entry);
        texts[entry.message] = header.nextId;
        addHeaders(sent, {header.end + size, header.count + 1, header.nextId + 1});
        return sent;
    }
    Bytes send(Work work) {
        Bytes sent;
        if (work == Work::append)
            return append();
        if (work == Work::flush)
            addHeaders(sent, {entryAreaStart, 0, header.nextId});
        else
            add(sent, 0, Image().data(), chipSize);
        return sent;
    }
    void store(const Bytes& sent, std::size_t count = SIZE_MAX) {
        for (std::size_t i = 0; i < std::min(sent.size(), count); ++i)
            image.at(sent[i].first) = sent[i].second;
    }
    // A chip that was filled with as many entries and flushed, and has as many entries now.
    void fill(std::uint32_t flushed, std::uint32_t cached) {
        texts.clear();
        image = {};
        header = {entryAreaStart, 0, 0xFFFFFFF0};
        for (std::uint32_t i = 0; i < flushed + cached; ++i) {
            if (i == flushed && flushed > 0)
                store(send(Work::flush));
            store(append());
        }
        appendAt = 0;
    }
    // Each entry was stored, under its number where it has one, and comes once. The text of the one
    // that was being stored may be half old, but then it has no number.
    void checkEntries(const std::vector<NumberedEntry>& entries, std::set<std::string>& seen) {
        for (const auto& [address, certainty, id, entry] : entries) {
            const auto known = texts.find(entry.message);
            if (known == texts.end() && address == appendAt && certainty == Certainty::unknown)
                continue;
            ASSERT_NE(known, texts.end()) << entry.message;
            ASSERT_TRUE(seen.insert(entry.message).second) << entry.message;
            const std::uint32_t tooHigh = id - known->second;
            ASSERT_LE(tooHigh * static_cast<unsigned>(certainty), 1U) << entry.message;
        }
    }
    // Also all entries are there whose bytes are as they were in `old`.
    void checkCut(const Image& old, std::uint32_t cached, bool mayEmpty) {
        const Contents contents = readContents(image);
        std::set<std::string> seen;
        ASSERT_NO_FATAL_FAILURE(checkEntries(contents.entries, seen));
        ASSERT_TRUE(mayEmpty || seen.size() == cached || seen.size() == cached + 1) << seen.size();
        for (const NumberedEntry& entry : contents.entries)
            ASSERT_TRUE(mayEmpty || cached == 0 || entry.certainty == Certainty::certain);
        for (const Section& section : contents.remains)
            ASSERT_NO_FATAL_FAILURE(checkEntries(section.entries, seen));
        for (const Record& record : // the texts' "log1" is none
             scanRecords(old, entryAreaStart, chipSize, AreaEnd::unknown).records) {
            const std::uint32_t at = record.address;
            const bool isIntact = std::equal(&old[at], &old[at] + record.size, &image[at]);
            ASSERT_TRUE(!isIntact || seen.count(record.entry.message) == 1) << at;
        }
    }

    bool varied = false; // in length
    Image image{};
    Header header{};
    std::uint32_t appendAt = 0;                 // where the last record was stored
    std::map<std::string, std::uint32_t> texts; // all ever stored, with their numbers
};

} // namespace

TEST_F(DecodeTest, afterEachCutEachIntactEntryIsThereAndNoneIsInvented) {
    // Entries that were flushed before, entries in the cache, and the work that is cut.
    const std::tuple<std::uint32_t, std::uint32_t, Work> scenarios[] = {
        {0, 0, Work::append},  {1, 0, Work::append},  {0, 5, Work::append},   {60, 0, Work::append},
        {60, 5, Work::append}, {0, 74, Work::append}, {74, 74, Work::append}, {0, 5, Work::flush},
        {60, 5, Work::flush},  {0, 74, Work::flush},  {0, 5, Work::clear},    {60, 5, Work::clear}};
    const bool isSampled = std::getenv("QUILLWICK_MATRIX") == nullptr;
    std::size_t images = 0;
    for (const auto& [flushed, cached, work] : scenarios) {
        for (const std::uint32_t divisor : {1U, 3U}) {
            varied = divisor > 1; // and longer
            fill(flushed / divisor, cached / divisor);
            const Image old = image;
            const std::uint32_t count = header.count;
            const Bytes sent = send(work);
            const std::size_t step = work == Work::clear && isSampled ? 7 : 1;
            for (std::size_t at = 0; at <= sent.size(); at += step) {
                const std::uint32_t last = at > 0 ? sent[at - 1].first : chipSize;
                for (const Tear tear : {Tear::none, Tear::randomBits, Tear::warmReset}) {
                    SCOPED_TRACE(testing::Message()
                                 << flushed << '+' << cached << " entries / " << divisor
                                 << ", work " << static_cast<int>(work) << " cut after byte " << at
                                 << ", tear " << static_cast<int>(tear));
                    image = old;
                    store(sent, at);
                    if (tear == Tear::randomBits && last < chipSize)
                        image.at(last) ^= static_cast<std::uint8_t>(1 + at * 37 % 255);
                    if (tear == Tear::warmReset && last + 1 < chipSize)
                        image.at(last + 1) = 0xFF;
                    const bool mayEmpty = work != Work::append || header.count <= count;
                    ASSERT_NO_FATAL_FAILURE(checkCut(old, count, mayEmpty));
                    ++images;
                }
            }
        }
    }
    std::printf("%zu images of cuts\n", images);
}

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
                // Nothing else tells what the time and the message were.
                const bool isLost = bit / 8 >= at + timeAt && bit / 8 < at + klvLength(&old[at]);
                ASSERT_TRUE(isLost || found[i].entry.message == entry.message);
            }
        }
    }
}

TEST_F(DecodeTest, damagedHeadersTellWhatTheyStillCan) {
    // The bytes that are wrong, and how certain the numbers then are.
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
