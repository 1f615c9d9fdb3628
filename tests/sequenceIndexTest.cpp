// The search for numbered lines in files and in memory, compared with a scan of the whole text.

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <sstream>
#include <vector>

#include "logger/sequenceIndex.h"
#include "logger/sequenceNumber.h"
#include "support/memoryFile.h"
#include "support/random.h"

using namespace testSupport;
namespace sequenceIndex = qwk::sequenceIndex;

namespace {

constexpr std::uint32_t untouched = 0x5A5A5A5A;

// The start and number of a line that was found, or that there is none.
using Place = std::optional<std::pair<std::uint32_t, std::uint32_t>>;

Place at(std::size_t offset, std::uint32_t id = untouched) {
    return {{static_cast<std::uint32_t>(offset), id}};
}

class SequenceIndexTest : public testing::Test {
protected:
    // The result of an operation. A failed one must leave its arguments as they are.
    template<typename Operation>
    Place find(Operation operation, std::uint32_t from = untouched) {
        std::uint32_t offset = from;
        std::uint32_t id = untouched;
        const int result = operation(offset, id);
        if (result == 0)
            return at(offset, id);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(offset, from);
        EXPECT_EQ(id, untouched);
        return {};
    }
    Place readIdAt(std::uint32_t from) {
        return find([&](auto& offset, auto& id) { return sequenceIndex::readIdAt(fd, offset, id); },
                    from);
    }
    Place readLastId() {
        return find(
            [&](auto& offset, auto& id) { return sequenceIndex::readLastId(fd, offset, id); });
    }
    template<typename... Text> // a path, or bytes and their number
    Place findId(std::uint32_t wanted, const Text&... text) {
        return find(
            [&](auto& offset, auto&) { return sequenceIndex::findId(text..., wanted, offset); });
    }
    template<typename... Text>
    Place findNextLine(std::uint32_t from, const Text&... text) {
        return find(
            [&](auto& offset, auto&) { return sequenceIndex::findNextLine(text..., offset); },
            from);
    }

    MemoryFile file;
    const std::string path = file.path();
    int fd = file.descriptor();
};

// A log file's text and the start and number of each of its lines.
struct LogText {
    explicit LogText(Random& random) {
        const std::uint32_t count = random.oneIn(2) ? random.upTo(3) : random.upTo(40);
        const std::uint32_t widest = random.oneIn(2) ? 20 : 300;
        const std::uint32_t gap = random.oneIn(2) ? 0 : random.oneIn(2) ? 3 : 1000000;
        const std::uint32_t firsts[] = {0, 1, 0x7FFFFFF0, 0xFFFFFFFF - (gap + 1) * 40};
        std::uint32_t id = firsts[random.upTo(3)] + random.upTo(gap);
        for (std::uint32_t i = 0; i < count; ++i, id += 1 + random.upTo(gap)) {
            lines.emplace_back(text.size(), id);
            text += qwk::sequenceTag(id) + std::string(random.upTo(widest), 'x');
            // At most one line starts in a block here: after a continuation the search goes on
            // with the next block.
            if (random.oneIn(5))
                text += '\n' + std::string(130 + random.upTo(widest), 'y');
            text += '\n';
        }
        if (count > 0 && random.oneIn(3))
            text.pop_back();
    }

    std::string text;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> lines;
};

} // namespace

TEST_F(SequenceIndexTest, findsTheLinesThatALookThroughTheTextFinds) {
    Random random;
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        const LogText log(random);
        const auto& [text, lines] = log;
        const int size = static_cast<int>(text.size());
        file.set(text);
        EXPECT_EQ(readLastId(), lines.size() < 2 ? Place() : lines.back());
        for (std::uint32_t from = 0; from <= text.size() + 1 && !HasFailure(); ++from) {
            SCOPED_TRACE(from);
            const auto line = std::find_if(lines.begin(), lines.end(), [&](const auto& candidate) {
                return candidate.first > from || candidate.first + from == 0;
            });
            EXPECT_EQ(readIdAt(from), line == lines.end() ? Place() : *line);
            const std::size_t newline = text.find('\n', from);
            const Place next = newline == std::string::npos ? Place() : at(newline + 1);
            EXPECT_EQ(findNextLine(from, path), next);
            EXPECT_EQ(findNextLine(from, text.data(), size), next);
        }
        std::vector<std::uint32_t> wanted = {0, 0xFFFFFFFF, 0x80000000};
        for (const auto& line : lines)
            wanted.insert(wanted.end(), {line.second - 1, line.second, line.second + 1});
        for (const std::uint32_t id : wanted) {
            const auto line = std::find_if(lines.begin(), lines.end(),
                                           [&](const auto& known) { return known.second == id; });
            const Place expected = line == lines.end() ? Place() : at(line->first);
            EXPECT_EQ(findId(id, path), expected) << id;
            EXPECT_EQ(findId(id, text.data(), size), expected) << id;
        }
    }
}

TEST_F(SequenceIndexTest, eightCharactersCountWhenTheyReadAsOneNumber) {
    const std::pair<std::string, std::optional<std::uint32_t>> cases[] = {
        {"[0000002a]", 0x2A}, {"[0000002A]", 0x2A},       {"?fffffffe?", 0xFFFFFFFE},
        {"[  0000ab]", 0xAB}, {"[\t\v\f\r 0ab]", 0xAB},   {"[+000000a]", 0xA},
        {"[0x00001f]", 0x1F}, {"[-0000001]", 0xFFFFFFFF}, {"[0000002g]", {}},
        {"[2a      ]", {}},   {"[        ]", {}},         {"[0x      ]", {}},
        {"[--00000a]", {}},   {"[000002a]]", {}},         {std::string("[0000\0002a]", 10), {}},
        {"[000002a", {}}};
    for (const auto& [line, id] : cases) {
        SCOPED_TRACE(line);
        file.set(line);
        EXPECT_EQ(readIdAt(0), id ? at(0, *id) : Place());
        for (const std::size_t before :
             {0U, 10U, 117U, 118U, 119U, 126U, 127U, 128U, 245U, 246U, 256U}) {
            file.set(std::string(before, 'x') + '\n' + line);
            EXPECT_EQ(readIdAt(0), id ? at(before + 1, *id) : Place()) << before;
            EXPECT_EQ(readLastId(), id ? at(before + 1, *id) : Place()) << before;
        }
    }
}

TEST_F(SequenceIndexTest, afterALineWithoutNumberTheNextBlockIsSearched) {
    const std::string skipped = "[00000001] a\n\tmore\n[00000002] b\n";
    file.set(skipped + "[00000003]" + std::string(200, 'c') + "\n[00000004] d\n");
    EXPECT_EQ(readIdAt(1), at(skipped.size() + 211, 4));
    EXPECT_EQ(readIdAt(19), at(skipped.size(), 3));
}

TEST_F(SequenceIndexTest, nothingIsFoundWhereNothingCanBeRead) {
    const std::string missing = "/missing";
    std::uint32_t offset = untouched;
    EXPECT_EQ(sequenceIndex::findId(missing, 1, offset), -2);
    EXPECT_EQ(offset, untouched);
    EXPECT_EQ(findNextLine(0, missing), Place());
    const std::string folder = "/";
    EXPECT_EQ(findId(1, folder), Place());
    EXPECT_EQ(findNextLine(0, folder), Place());
    const qwk::FileDescriptor opened = qwk::openForReading(folder.c_str());
    for (const int unreadable : {opened.get(), -1}) {
        fd = unreadable;
        EXPECT_EQ(readIdAt(0), Place()) << unreadable;
        EXPECT_EQ(readLastId(), Place()) << unreadable;
    }
}

TEST_F(SequenceIndexTest, inMemoryANumberCountsWhereverItStands) {
    for (const int size : {0, 11, 12, 23})
        EXPECT_EQ(findId(0x2A, "x [0000002a] [0000002a]", size), size < 12 ? Place() : at(2));
}

TEST_F(SequenceIndexTest, offsetsReachToTheLast32BitOne) {
    // Numbers that grow in step with the offsets lead the search near the line at once.
    const std::uint32_t starts[] = {0x7FFFFFC0, 0x80000000, 0x80000100, 0xFFFFFF00, 0xFFFFFFD0};
    const std::uint32_t lastId = 0xFFFFFFD0 / 16 - 2;
    file.set(qwk::sequenceTag(0) + '\n');
    for (const std::uint32_t start : starts)
        file.write(std::int64_t{start} - 1, '\n' + qwk::sequenceTag(start / 16 - 2));
    for (const std::uint32_t start : starts) {
        EXPECT_EQ(findNextLine(start - 20, path), at(start));
        EXPECT_EQ(readIdAt(start - 20), at(start, start / 16 - 2));
        EXPECT_EQ(findId(start / 16 - 2, path), at(start));
    }
    EXPECT_EQ(readLastId(), at(starts[4], lastId));
    EXPECT_EQ(findId(lastId + 1, path), Place());
    // A line that starts beyond has no offset.
    file.write(0xFFFFFFFF, "\n[0fffffff] out of reach\n");
    EXPECT_EQ(findNextLine(0xFFFFFFF0, path), Place());
    EXPECT_EQ(readIdAt(0xFFFFFFF0), Place());
    EXPECT_EQ(readLastId(), at(starts[4], lastId));
}

// Long lines among short ones lead the interpolation astray, and into their middle. Of 30,000
// searches the worst took 756 reads.
TEST_F(SequenceIndexTest, fewReadsFindALineWhateverTheLengths) {
    const auto reads = [] {
        std::ostringstream counters;
        counters << std::ifstream("/proc/self/io").rdbuf();
        return std::stoul(counters.str().substr(counters.str().find("syscr: ") + 7));
    };
    Random random;
    std::string text;
    std::vector<std::uint32_t> starts;
    for (std::uint32_t id = 0; id < 20000; ++id) {
        starts.push_back(static_cast<std::uint32_t>(text.size()));
        const std::uint32_t longest = random.oneIn(50) ? 8000 : id < 5000 ? 900 : 90;
        text += qwk::sequenceTag(id) + std::string(random.upTo(longest), 'x') + '\n';
    }
    file.set(text);
    for (int round = 0; round < 500; ++round) {
        const std::uint32_t id = random.upTo(19999);
        const std::size_t before = reads();
        EXPECT_EQ(findId(id, path), at(starts[id]));
        EXPECT_LT(reads() - before, 1000U) << id;
    }
}
