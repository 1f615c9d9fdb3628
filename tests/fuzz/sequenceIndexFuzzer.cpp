// The sequence index over any file content, compared with a scan of the whole text.
#include <algorithm>
#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>
#include <vector>

#include "logger/sequenceIndex.h"
#include "logger/sequenceNumber.h"
#include "support/memoryFile.h"

namespace sequenceIndex = qwk::sequenceIndex;

// Ends the program, which keeps the input.
static void require(bool condition) {
    if (!condition)
        std::abort();
}

using Place = std::pair<std::uint32_t, std::uint32_t>; // a line's start and number

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static testSupport::MemoryFile file;
    static const std::string path = file.path();
    FuzzedDataProvider input(data, size);
    const auto from = input.ConsumeIntegralInRange<std::uint32_t>(0, 4096);
    std::uint64_t next = input.ConsumeIntegral<std::uint32_t>();
    const bool wellFormed = input.ConsumeBool(); // as the logger writes, with gaps or without
    std::string text = wellFormed ? "" : input.ConsumeRemainingBytesAsString();
    while (input.remaining_bytes() > 0 && next <= UINT32_MAX && text.size() < 4096) {
        text += qwk::sequenceTag(static_cast<std::uint32_t>(next));
        text += std::string(input.ConsumeIntegral<std::uint8_t>(), 'x') + '\n';
        const std::uint32_t gap = input.ConsumeIntegral<std::uint8_t>();
        next += gap < 64 ? 1 : gap < 128 ? gap : gap * gap * gap;
    }
    file.set(text);
    std::vector<Place> lines;
    Place at{0, 0};
    for (; at.first + std::size_t{qwk::sequenceDigits} < text.size(); ++at.first) {
        if (qwk::parseSequenceNumber(&text[at.first + 1], at.second))
            lines.push_back(at);
        at.first = static_cast<std::uint32_t>(std::min(text.find('\n', at.first), text.size()));
    }
    // A line that is found is there; in a well-formed file the first line that fits is found.
    const auto check = [&](int result, auto fits) {
        const auto line = std::find_if(lines.begin(), lines.end(), fits);
        const bool isThere = std::count(lines.begin(), lines.end(), at) == 1;
        require(result == -1 ? !wellFormed || line == lines.end()
                             : isThere && (!wellFormed || at == *line));
    };
    at.first = from;
    check(
        sequenceIndex::readIdAt(file.descriptor(), at.first, at.second),
        [&](Place line) { return line.first > from || line.first + from == 0; });
    check(sequenceIndex::readLastId(file.descriptor(), at.first, at.second),
          [&](Place line) { return line.first != 0 && line == lines.back(); });
    for (std::uint32_t i = 0; i <= std::min<std::size_t>(lines.size(), 8) * 3; ++i) {
        at.second = lines.empty() ? from : lines[(from + i / 3) % lines.size()].second + i % 3 - 1;
        check(sequenceIndex::findId(path, at.second, at.first),
              [&](Place line) { return line.second == at.second; });
    }
    const bool isNext = sequenceIndex::findNextLine(path, at.first = from) == 0;
    require((isNext ? at.first - 1 : std::string::npos) == text.find('\n', from));
    return 0;
}
