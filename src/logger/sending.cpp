// The lowest layer of delivery: the part of Logger that pushes bytes down a client's socket without
// ever waiting for the client, and keeps track of the line at which the client stands.

#include <cerrno>
#include <cstring>
#include <limits>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "logger/logger.h"
#include "logger/sequenceNumber.h"
#include "support/diagnostics.h"
#include "support/fileDescriptor.h"

namespace qwk {

namespace {

// A line start as the tracking sees it: the terminator before it, the bracket and the digits.
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

// Completes a pending head with the first bytes offered, whether or not they went out: what the
// socket refused is the stream's next bytes all the same.
void completeLineHead(SendState& state, const char* data, int length) {
    const int known = static_cast<int>(std::strlen(state.lineHead));
    const int missing = headLength - known;
    if (known == 0 || length <= missing)
        return;
    std::memcpy(state.lineHead + known, data, static_cast<std::size_t>(missing));
    recognise(state, state.lineHead, state.lineStart);
    state.lineHead[0] = '\0';
}

// Looks at the last line start among the `done` bytes that went out.
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

void trackLines(SendState& state, const char* data, int length, int done) {
    if (state.count_total == 0)
        setLineHead(state, "\n", 1); // the stream's first byte is a line start
    completeLineHead(state, data, length);
    trackLastLine(state, data, done);
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

int Logger::sendBuffer(SendState& state, const char* data, int length, bool& wouldBlock) {
    wouldBlock = false;
    int done = 0;
    while (done < length) {
        pollfd client{state.socket, POLLOUT | POLLHUP, 0};
        const int ready = poll(&client, 1, 0);
        if (ready < 0) {
            report(LOG_ERR, "Poll failed (%s).", errorText(errno).c_str());
            return -1;
        }
        if (ready == 0) {
            wouldBlock = true;
            break;
        }
        if ((client.revents & POLLHUP) != 0) {
            report(LOG_INFO, "Connection closed by peer.");
            return -1;
        }
        const ssize_t sent =
            send(state.socket, data + done, static_cast<std::size_t>(length - done), 0);
        if (sent < 0) {
            report(LOG_ERR, "Sending failed (%s).", errorText(errno).c_str());
            return -1;
        }
        if (sent == 0) {
            report(LOG_DEBUG, "0 bytes sent.");
            return -1;
        }
        done += static_cast<int>(sent);
    }
    trackLines(state, data, length, done);
    advance(state, done);
    report(LOG_DEBUG,
           "Sending successful: Requested= %d, done= %d, wouldBlock= %d,id= 0x%08x, count_id= %d, "
           "count_total= %d.",
           length, done, wouldBlock ? 1 : 0, state.id, state.count_id, state.count_total);
    return done;
}

int Logger::sendFile(SendState& state, int off, const std::string& name, bool& wouldBlock) {
    wouldBlock = false;
    int total = 0;
    bool good = false;
    {
        const FileDescriptor file = openForReading(name.c_str());
        const auto start = static_cast<off_t>(static_cast<std::uint32_t>(off));
        good = file.get() > 0 && (off == 0 || lseek(file.get(), start, SEEK_SET) == start);
        while (good && !wouldBlock) {
            const ssize_t got =
                readSome(file.get(), state.buffer, static_cast<std::size_t>(state.bufferSize));
            if (got == 0)
                break;
            const int sent =
                got < 0 ? -1 : sendBuffer(state, state.buffer, static_cast<int>(got), wouldBlock);
            good = sent >= 0;
            if (good) // only the sign counts for a file beyond 2 GiB
                total = sent <= std::numeric_limits<int>::max() - total
                            ? total + sent
                            : std::numeric_limits<int>::max();
        }
    }
    report(LOG_DEBUG, "File \"%s\" sent, off= %d, ret= %d.", name.c_str(), off, good ? 0 : -1);
    return good ? total : -1;
}

int Logger::sendCache(SendState& state, int off, bool& wouldBlock) {
    wouldBlock = false;
    // The byte behind the last character is the string's terminating NUL.
    const std::int64_t start = static_cast<std::uint32_t>(off);
    const std::int64_t length = static_cast<std::int64_t>(cache_.size()) + 1 - start;
    const int result =
        length > 0 ? sendBuffer(state, cache_.c_str() + start, static_cast<int>(length), wouldBlock)
                   : 0;
    report(LOG_DEBUG, "Cache sent, off= %d, ret= %d.", off, result);
    return result;
}

int Logger::sendFiles(SendState& state, const std::vector<LogFile>& files, bool& wouldBlock) {
    wouldBlock = false;
    for (auto file = files.rbegin(); file != files.rend() && !wouldBlock; ++file) {
        const int sent = file->name.empty() ? sendCache(state, file->off, wouldBlock)
                                            : sendFile(state, file->off, file->name, wouldBlock);
        if (sent < 0)
            return -1;
    }
    return 0;
}

} // namespace qwk
