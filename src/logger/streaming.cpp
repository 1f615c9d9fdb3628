// One client's stream from its first byte to its last: the part of Logger that alternates between
// deliveries, made under the lock, and waits, made without it.

#include <new>
#include <poll.h>

#include "logger/logger.h"
#include "support/diagnostics.h"

namespace qwk {

namespace {

constexpr int transferBufferSize = 65536;
constexpr int pollPeriodMs = 1000;

// Waits until the client takes more. False when it has gone or poll() fails.
bool waitUntilWritable(int socket) {
    for (;;) {
        pollfd client{socket, POLLOUT | POLLHUP, 0};
        const int ready = poll(&client, 1, pollPeriodMs);
        if (ready == 0)
            continue;
        if (ready < 0)
            return false;
        if ((client.revents & POLLHUP) != 0) {
            report(LOG_INFO, "Connection closed by peer.");
            return false;
        }
        return true;
    }
}

} // namespace

struct Logger::Stream {
    SendState state;
    int maxsize;
    std::vector<LogFile> files;
    /// The last delivery stopped because the socket was full.
    bool wouldBlock;
    /// Logger's additions_ right after the last delivery.
    std::uint32_t seenAdditions;
};

int Logger::streamLogs(int maxsize, bool listen, int socket) {
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[transferBufferSize]);
    if (!buffer)
        return -1;
    SendState state{};
    state.buffer = buffer.get();
    state.bufferSize = transferBufferSize;
    state.socket = socket;
    Stream stream{state, maxsize, {}, false, 0};
    if (deliverNewest(stream) && deliverBacklog(stream) && listen)
        followLog(stream);
    return 0;
}

bool Logger::deliverNewest(Stream& stream) {
    const std::lock_guard<std::mutex> held(mutex_);
    findFilesBySize(stream.maxsize, stream.files);
    return sendListed(stream);
}

bool Logger::deliverRest(Stream& stream) {
    const std::lock_guard<std::mutex> held(mutex_);
    const std::uint32_t had = static_cast<std::uint32_t>(stream.state.count_total) -
                              static_cast<std::uint32_t>(stream.state.count_id);
    findFilesAfterId(stream.state.id, static_cast<int>(had), stream.maxsize, stream.files);
    return sendListed(stream);
}

bool Logger::sendListed(Stream& stream) {
    const bool sent = sendFiles(stream.state, stream.files, stream.wouldBlock) == 0;
    stream.seenAdditions = additions_;
    return sent;
}

bool Logger::deliverBacklog(Stream& stream) {
    // Unsigned, so that a total beyond 2^31 bytes is above every maxsize.
    while (stream.wouldBlock && static_cast<std::uint32_t>(stream.state.count_total) <
                                    static_cast<std::uint32_t>(stream.maxsize))
        if (!waitUntilWritable(stream.state.socket) || !deliverRest(stream))
            return false;
    return true;
}

void Logger::followLog(Stream& stream) {
    bool ending = false;
    while (!ending) {
        ending = waitForEntry(stream);
        do {
            if (!waitUntilWritable(stream.state.socket) || !deliverRest(stream))
                return;
        } while (stream.wouldBlock);
    }
}

bool Logger::waitForEntry(Stream& stream) {
    std::unique_lock<std::mutex> held(mutex_);
    cacheChanged_.wait(held, [&] { return additions_ != stream.seenAdditions || streamsEnding_; });
    // A stream that has sent nothing has no line to go on from: it starts with the newest entry.
    if (stream.state.count_total == 0)
        stream.state.id = lastId_;
    return streamsEnding_;
}

} // namespace qwk
