// The search for numbered lines in files and in memory, against a look through the whole text.

#include <algorithm>
#include <fcntl.h>
#include <optional>
#include <unistd.h>
#include <vector>

#include "support/childProcess.h"
#include "support/logFixture.h"

using namespace testSupport;

namespace {

const std::string path = "/var/logperm/searched.log";

using Offset = std::optional<std::uint32_t>;
using Place = std::optional<std::pair<std::uint32_t, std::uint32_t>>; // a line's start and number

class SequenceIndexTest : public LogTest {
protected:
    void useFile(const std::string& name) {
        file = Descriptor(open(name.c_str(), O_RDONLY | O_CLOEXEC));
    }
    void useText(const std::string& text) {
        writeFile(path, text);
        useFile(path);
    }
    // Each operation's find; nothing on failure, which must leave the arguments as they are.
    Place readIdAt(std::uint32_t from) {
        std::uint32_t offset = from;
        std::uint32_t id = untouched;
        const int result = logger.readIdAt(file.get(), offset, id);
        return place(result, offset, id, from);
    }
    Place readLastId() {
        std::uint32_t offset = untouched;
        std::uint32_t id = untouched;
        const int result = logger.readLastId(file.get(), offset, id);
        return place(result, offset, id, untouched);
    }
    template<typename... Text>
    Offset findId(std::uint32_t id, const Text&... text) {
        std::uint32_t offset = untouched;
        const int result = logger.findId(text..., id, offset);
        return found(result, offset, untouched);
    }
    template<typename... Text>
    Offset findNextLine(std::uint32_t from, const Text&... text) {
        std::uint32_t offset = from;
        const int result = logger.findNextLine(text..., offset);
        return found(result, offset, from);
    }

    Descriptor file;

private:
    static constexpr std::uint32_t untouched = 0x5A5A5A5A;

    static Offset found(int result, std::uint32_t offset, std::uint32_t before) {
        if (result == 0)
            return offset;
        EXPECT_EQ(result, -1);
        EXPECT_EQ(offset, before);
        return std::nullopt;
    }
    static Place place(int result, std::uint32_t offset, std::uint32_t id, std::uint32_t before) {
        if (found(result, offset, before))
            return {{offset, id}};
        EXPECT_EQ(id, untouched);
        return std::nullopt;
    }
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
            // At most one line starts in a block here: behind a continuation the search goes on
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

TEST_F(SequenceIndexTest, findsWhatALookThroughTheTextFinds) {
    Random random;
    for (int round = 0; round < 60 && !HasFailure(); ++round) {
        const LogText log(random);
        const auto& [text, lines] = log;
        const int size = static_cast<int>(text.size());
        useText(text);
        EXPECT_EQ(readLastId(), lines.size() < 2 ? Place() : Place(lines.back()));
        for (std::uint32_t from = 0; from <= text.size() + 1 && !HasFailure(); ++from) {
            SCOPED_TRACE(from);
            const auto line = std::find_if(lines.begin(), lines.end(), [&](const auto& candidate) {
                return candidate.first > from || candidate.first + from == 0;
            });
            EXPECT_EQ(readIdAt(from), line == lines.end() ? Place() : Place(*line));
            const std::size_t newline = text.find('\n', from);
            const Offset next = newline == std::string::npos
                                    ? Offset()
                                    : Offset(static_cast<std::uint32_t>(newline) + 1);
            EXPECT_EQ(findNextLine(from, path), next);
            EXPECT_EQ(findNextLine(from, text.data(), size), next);
        }
        std::vector<std::uint32_t> wanted = {0, 0xFFFFFFFF, 0x80000000};
        for (const auto& line : lines)
            wanted.insert(wanted.end(), {line.second - 1, line.second, line.second + 1});
        for (const std::uint32_t id : wanted) {
            const auto line = std::find_if(lines.begin(), lines.end(),
                                           [&](const auto& known) { return known.second == id; });
            const Offset expected = line == lines.end() ? Offset() : Offset(line->first);
            EXPECT_EQ(findId(id, path), expected) << id;
            EXPECT_EQ(findId(id, text.data(), size), expected) << id;
        }
    }
}

TEST_F(SequenceIndexTest, theLastLineIsFoundAtAnyDistanceFromTheEnd) {
    for (const char* ending : {"", "\n", "\n\tcontinued\n\n"}) {
        for (std::size_t length = 10; length < 300; ++length) {
            std::string text = std::string(length, '0') + '\n'; // the first line's number is 0
            for (const char* tag : {"[00000007]", "[00000008]"})
                text += tag + std::string(length - 10, 'x') + (tag[8] == '8' ? ending : "\n");
            useText(text);
            const auto last = static_cast<std::uint32_t>(2 * length + 2);
            EXPECT_EQ(readLastId(), Place({last, 8U})) << length;
            EXPECT_EQ(findId(7, path), Offset(last / 2)) << length;
        }
    }
}

TEST_F(SequenceIndexTest, eightCharactersCountWhenTheyReadAsOneNumber) {
    const std::pair<std::string, Offset> cases[] = {
        {"[0000002a]", 0x2A}, {"[0000002A]", 0x2A},       {"?fffffffe?", 0xFFFFFFFE},
        {"[  0000ab]", 0xAB}, {"[\t\v\f\r 0ab]", 0xAB},   {"[+000000a]", 0xA},
        {"[0x00001f]", 0x1F}, {"[-0000001]", 0xFFFFFFFF}, {"[0000002g]", {}},
        {"[2a      ]", {}},   {"[        ]", {}},         {"[0x      ]", {}},
        {"[--00000a]", {}},   {"[000002a]]", {}},         {std::string("[0000\0002a]", 10), {}},
        {"[000002a", {}},
    };
    for (const auto& [line, id] : cases) {
        SCOPED_TRACE(line);
        useText(line);
        EXPECT_EQ(readIdAt(0), id ? Place({0U, *id}) : Place());
        for (const std::size_t before : {0U, 10U, 117U, 118U, 119U, 126U, 127U, 128U}) {
            useText(std::string(before, 'x') + '\n' + line);
            const auto start = static_cast<std::uint32_t>(before) + 1;
            EXPECT_EQ(readIdAt(0), id ? Place({start, *id}) : Place()) << before;
            EXPECT_EQ(readLastId(), id ? Place({start, *id}) : Place()) << before;
        }
    }
}

TEST_F(SequenceIndexTest, behindALineWithoutNumberTheNextBlockIsSearched) {
    const std::string passedOver = "[00000001] a\n\tmore\n[00000002] b\n";
    useText(passedOver + "[00000003]" + std::string(200, 'c') + "\n[00000004] d\n");
    EXPECT_EQ(readIdAt(1), Place({static_cast<std::uint32_t>(passedOver.size()) + 211, 4U}));
    EXPECT_EQ(readIdAt(19), Place({static_cast<std::uint32_t>(passedOver.size()), 3U}));
}

TEST_F(SequenceIndexTest, whatCannotBeReadHoldsNothing) {
    std::uint32_t offset = 7;
    EXPECT_EQ(logger.findId("/var/logperm/missing", 1, offset), -2);
    EXPECT_EQ(offset, 7U);
    EXPECT_EQ(findNextLine(0, std::string("/var/logperm/missing")), Offset());
    const std::string folder = "/var/logperm";
    EXPECT_EQ(findId(1, folder), Offset());
    EXPECT_EQ(findNextLine(0, folder), Offset());
    for (const char* unreadable : {"/var/logperm", "/dev/null", "/missing"}) {
        useFile(unreadable);
        EXPECT_EQ(readIdAt(0), Place()) << unreadable;
        EXPECT_EQ(readLastId(), Place()) << unreadable;
    }
    const char message[] = "x [0000002a] y"; // in memory a number counts wherever it stands
    EXPECT_EQ(findId(0x2A, message, 14), Offset(2));
    EXPECT_EQ(findId(0x2A, message, 11), Offset());
    EXPECT_EQ(findId(0x2A, message, 0), Offset());
}

TEST_F(SequenceIndexTest, offsetsReachToTheLast32BitOne) {
    // Numbers that grow in step with the offsets lead the search near the line at once.
    const std::uint32_t starts[] = {0x7FFFFFC0, 0x80000000, 0x80000100, 0xFFFFFF00, 0xFFFFFFD0};
    useText(qwk::sequenceTag(0) + '\n');
    const Descriptor writing(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    const auto write = [&](std::int64_t at, const std::string& text) {
        EXPECT_EQ(pwrite(writing.get(), text.data(), text.size(), at),
                  static_cast<ssize_t>(text.size()));
    };
    for (const std::uint32_t start : starts)
        write(std::int64_t{start} - 1, '\n' + qwk::sequenceTag(start / 16 - 2));
    for (const std::uint32_t start : starts) {
        const std::uint32_t id = start / 16 - 2;
        EXPECT_EQ(findNextLine(start - 20, path), Offset(start));
        EXPECT_EQ(readIdAt(start - 20), Place({start, id}));
        EXPECT_EQ(findId(id, path), Offset(start));
    }
    const Place last({starts[4], starts[4] / 16 - 2});
    EXPECT_EQ(readLastId(), last);
    EXPECT_EQ(findId(last->second + 1, path), Offset());
    // What starts beyond has no offset.
    write(0xFFFFFFFF, "\n[0fffffff] out of reach\n");
    EXPECT_EQ(findNextLine(0xFFFFFFF0, path), Offset());
    EXPECT_EQ(readIdAt(0xFFFFFFF0), Place());
    EXPECT_EQ(readLastId(), last);
}

TEST_F(SequenceIndexTest, anyBytesAreSearchedToAnEnd) {
    Random random;
    const std::string alphabet("\n\n[]00123fx -\0", 14);
    for (int round = 0; round < 3000 && !HasFailure(); ++round) {
        std::string text(random.upTo(700), '\0');
        for (char& byte : text)
            byte = alphabet[random.upTo(13)];
        for (std::uint32_t lines = random.upTo(8); lines > 0; --lines)
            text.insert(random.upTo(static_cast<std::uint32_t>(text.size())),
                        '\n' + qwk::sequenceTag(random.upTo(20)));
        useText(text);
        const auto isLine = [&](const Place& line) {
            std::uint32_t id = 0;
            return line->first + 9 <= text.size() &&
                   (line->first == 0 || text[line->first - 1] == '\n') &&
                   qwk::parseSequenceNumber(&text[line->first + 1], id) && id == line->second;
        };
        const Place places[] = {readIdAt(0), readIdAt(random.upTo(700)), readLastId()};
        for (const Place& line : places)
            EXPECT_TRUE(!line || isLine(line));
        for (std::uint32_t id = 0; id <= 20; ++id) {
            const Offset start = findId(id, path);
            EXPECT_TRUE(!start || isLine({{*start, id}})) << id;
        }
    }
}
