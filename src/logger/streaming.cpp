// One client's stream from its first byte to its last: deliveries under the logger's lock alternate
// with waits without it.

#include <new>
#include <poll.h>

#include "logger/logger.h"
#include "support/diagnostics.h"

namespace qwk {

namespace {

constexpr int transferBufferSize = 65536;
constexpr int pollPeriodMs = 1000;

// Waits until the client accepts more. False when it has left or poll() fails.
bool waitUntilWritable(int socket) {
    for (;;) {
        pollfd client{socket, POLLOUT | POLLHUP, 0};
        const int ready = ::poll(&client, 1, pollPeriodMs);
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

/// The steps take the logger's lock if they need it. The bool of a delivery is false when the
/// stream has ended.
class Logger::Stream {
public:
    /// `transferBuffer` has transferBufferSize bytes and outlives the stream.
    Stream(Logger& logger, int maxsize, int socket, char* transferBuffer)
        : logger_(logger), maxsize_(maxsize) {
        state_.buffer = transferBuffer;
        state_.bufferSize = transferBufferSize;
        state_.socket = socket;
    }

    /// Delivers the newest `maxsize` bytes, also to a client that reads slowly.
    bool deliverRecentLogs() { return deliverNewest() && deliverBacklog(); }
    /// Delivers each new entry until the client leaves or streams are ended.
    void followLog();

private:
    bool deliverNewest();
    bool deliverBacklog();
    bool deliverFromResumePoint();
    bool sendListed() QWK_REQUIRES(logger_);
    /// Waits for an entry since the last delivery; true when streams are ended. Unchecked, because
    /// a standard condition variable takes a standard lock.
    bool waitForEntry() QWK_UNCHECKED;

    Logger& logger_;
    const int maxsize_;
    SendState state_{};
    std::vector<LogFile> files_;
    /// The last delivery stopped because the socket was full.
    bool wouldBlock_ = false;
    /// Logger's entriesAdded_ right after the last delivery.
    std::uint32_t entriesSeen_ = 0;
};

bool Logger::Stream::deliverNewest() {
    const Held<Logger> held(logger_);
    logger_.findFilesBySize(maxsize_, files_);
    return sendListed();
}

bool Logger::Stream::deliverFromResumePoint() {
    const Held<Logger> held(logger_);
    const std::uint32_t bytesOfLine = static_cast<std::uint32_t>(state_.count_total) -
                                      static_cast<std::uint32_t>(state_.count_id);
    logger_.findFilesAfterId(state_.id, static_cast<int>(bytesOfLine), maxsize_, files_);
    return sendListed();
}

bool Logger::Stream::sendListed() {
    const bool sent = logger_.sendFiles(state_, files_, wouldBlock_) == 0;
    entriesSeen_ = logger_.entriesAdded_;
    return sent;
}

bool Logger::Stream::deliverBacklog() {
    // Unsigned, so that a total beyond 2^31 bytes is above every maxsize.
    while (wouldBlock_ &&
           static_cast<std::uint32_t>(state_.count_total) < static_cast<std::uint32_t>(maxsize_))
        if (!waitUntilWritable(state_.socket) || !deliverFromResumePoint())
            return false;
    return true;
}

void Logger::Stream::followLog() {
    bool ending = false;
    while (!ending) {
        ending = waitForEntry();
        do {
            if (!waitUntilWritable(state_.socket) || !deliverFromResumePoint())
                return;
        } while (wouldBlock_);
    }
}

bool Logger::Stream::waitForEntry() {
    std::unique_lock<std::mutex> held(logger_.mutex_);
    while (logger_.entriesAdded_ == entriesSeen_ && !logger_.streamsEnding_)
        logger_.cacheChanged_.wait(held);
    // A stream that has sent nothing has no line to continue from: it starts with the newest entry.
    if (state_.count_total == 0)
        state_.id = logger_.lastId_;
    return logger_.streamsEnding_;
}

int Logger::streamLogs(int maxsize, bool listen, int socket) {
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[transferBufferSize]);
    if (!buffer)
        return -1;
    Stream stream(*this, maxsize, socket, buffer.get());
    if (stream.deliverRecentLogs() && listen)
        stream.followLog();
    return 0;
}

} // namespace qwk
