#include "logger/lineTracker.h"

#include <cstdint>
#include <cstring>

#include "logger/sequenceNumber.h"

namespace qwk::lineTracker {

namespace {

// A line start with its number: the terminator before it, the bracket and the digits.
constexpr int headLength = 2 + sequenceDigits;
static_assert(sizeof SendState::lineHead == headLength + 1);

// Stream offsets wrap: a stream may run for years.
std::int32_t wrappingSum(std::int32_t offset, int bytes) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(offset) +
                                     static_cast<std::uint32_t>(bytes));
}

bool isTerminator(char byte) {
    return byte == '\n' || byte == '\0';
}

void recognise(SendState& state, const char* head, std::int32_t lineStart) {
    if (parseSequenceNumber(head + 2, state.id))
        state.count_id = lineStart;
}

void setLineHead(SendState& state, const char* bytes, int length) {
    std::memcpy(state.lineHead, bytes, static_cast<std::size_t>(length));
    state.lineHead[length] = '\0';
}

// Completes a pending head with the first bytes offered, whether or not they were sent: bytes that
// the socket refused are still the stream's next bytes.
void completeLineHead(SendState& state, const char* data, int length) {
    const int known = static_cast<int>(std::strlen(state.lineHead));
    const int missing = headLength - known;
    if (known == 0 || length <= missing)
        return;
    std::memcpy(state.lineHead + known, data, static_cast<std::size_t>(missing));
    recognise(state, state.lineHead, state.lineStart);
    state.lineHead[0] = '\0';
}

// Looks at the last line start among the `done` bytes that were sent.
void trackLastLine(SendState& state, const char* data, int done) {
    int last = done - 1;
    while (last >= 0 && !isTerminator(data[last]))
        --last;
    if (last < 0)
        return;
    const int known = done - last;
    const std::int32_t lineStart = wrappingSum(state.count_total, last + 1);
    if (known >= headLength) {
        recognise(state, data + last, lineStart);
        state.lineHead[0] = '\0';
        return;
    }
    if (known == 1)
        setLineHead(state, "\n", 1);
    else
        setLineHead(state, data + last, known);
    state.lineStart = lineStart;
}

void advance(SendState& state, int done) {
    const bool begun = state.count_total != 0 || done > 0;
    state.count_total = wrappingSum(state.count_total, done);
    if (begun && state.count_total == 0) {
        // 0 means that nothing was sent. Only differences count, so all offsets move on by one.
        state.count_total = 1;
        state.count_id = wrappingSum(state.count_id, 1);
        state.lineStart = wrappingSum(state.lineStart, 1);
    }
}

} // namespace

void recordSent(SendState& state, const char* data, int length, int done) {
    if (state.count_total == 0)
        setLineHead(state, "\n", 1); // the stream's first byte is a line start
    completeLineHead(state, data, length);
    trackLastLine(state, data, done);
    advance(state, done);
}

} // namespace qwk::lineTracker
