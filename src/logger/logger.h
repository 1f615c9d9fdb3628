#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "logger/delivery.h"
#include "logger/logSink.h"
#include "logger/unsyncedFiles.h"

namespace log4cplus {
class Logger;
}

namespace qwk {

/// The rolling log file, the text of the entries that wait in the FRAM (the recent-entry buffer),
/// and the delivery of both to clients. One exists while the daemon runs.
class Logger : public LogSink {
public:
    /// Reads the configuration and opens the log file; failures are reported.
    Logger();
    ~Logger() override;

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    void nextSequenceNumber(std::uint32_t& next) override;
    void sink(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
              const std::string& message) override QWK_REQUIRES(this);
    void addToCache(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                    const std::string& message) override QWK_REQUIRES(this);
    void clearCache() override QWK_REQUIRES(this);
    bool isCacheFilled() override QWK_REQUIRES(this);
    /// Throws std::system_error when the mutex fails.
    void lock() override QWK_ACQUIRES();
    /// Releases the lock. If lines were written under it, returns only when they are on stable
    /// storage, or when syncing them has failed (reported).
    void unlock() override QWK_RELEASES();

    /// Highest journal priority that is logged, 1 to 6.
    std::int32_t logLevel() const { return logLevel_; }

    /// The log line of an entry in local time, without a newline.
    std::string formatLine(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                           const std::string& message) QWK_REQUIRES(this);

    // The sequence index, see logger/sequenceIndex.h. These use none of the logger's fields.
    int findNextLine(const std::string& path, std::uint32_t& offset);
    int findNextLine(const char* data, int size, std::uint32_t& offset);
    int readIdAt(int fd, std::uint32_t& offset, std::uint32_t& id);
    int readLastId(int fd, std::uint32_t& offset, std::uint32_t& id);
    int findId(const std::string& path, std::uint32_t id, std::uint32_t& offset);
    int findId(const char* data, int size, std::uint32_t id, std::uint32_t& offset);

    // Delivery to one client. The caller holds the lock, except for streamLogs, so that buffer and
    // files do not change between the choice of the sources and the last byte.

    /// Sends as much of `data` as the socket accepts without blocking. Returns the number of bytes
    /// sent, and sets `wouldBlock` if the socket was full before the end. Returns -1 when the
    /// connection is unusable; the state is then unchanged.
    int sendBuffer(SendState& state, const char* data, int length, bool& wouldBlock)
        QWK_REQUIRES(this);
    /// Sends the file `name` from byte `off` on. Results as sendBuffer; -1 also if reading fails.
    int sendFile(SendState& state, int off, const std::string& name, bool& wouldBlock)
        QWK_REQUIRES(this);
    /// Sends the recent-entry buffer from byte `off` on and its terminating NUL.
    int sendCache(SendState& state, int off, bool& wouldBlock) QWK_REQUIRES(this);
    /// Sends a list of sources, oldest first, until the socket is full; 0 or -1.
    int sendFiles(SendState& state, const std::vector<LogFile>& files, bool& wouldBlock)
        QWK_REQUIRES(this);

    /// Lists the newest sources that hold at most `maxsize` bytes, from a line start on.
    void findFilesBySize(int maxsize, std::vector<LogFile>& files) QWK_REQUIRES(this);
    /// Lists the sources after the first `off` bytes of line `id`; falls back to the list by size
    /// if no source contains that place.
    void findFilesAfterId(std::uint32_t id, int off, int maxsize, std::vector<LogFile>& files)
        QWK_REQUIRES(this);

    /// Sends the newest log bytes, at most `maxsize` (0 or more), to a non-blocking `socket`, which
    /// stays open; with `listen`, then sends every new line, until the client leaves or streams are
    /// ended. Returns 0, or -1 when the transfer buffer cannot be allocated; throws
    /// std::system_error when the mutex fails. Waits for the client without the lock.
    int streamLogs(int maxsize, bool listen, int socket) QWK_EXCLUDES(this);

    /// Makes every stream end, waiting and future ones.
    void endStreams() QWK_REQUIRES(this);

private:
    class Stream;

    void readConfiguration();

    // Constant after construction.
    std::unique_ptr<log4cplus::Logger> logger_;
    long logSize_ = 5242880;
    std::int32_t logLevel_ = 4;
    std::int32_t logCount_ = 20;

    // Guarded by mutex_, which lock() takes. It also guards the log file and the rolled files.
    std::string cache_ QWK_GUARDED_BY(this);
    std::mutex mutex_;
    bool cacheFilled_ QWK_GUARDED_BY(this) = false;
    /// Lines were dropped from the front of cache_ since it was last empty.
    bool dropReported_ QWK_GUARDED_BY(this) = false;
    std::uint32_t lastId_ QWK_GUARDED_BY(this) = 0;
    /// Notified after every addToCache and by endStreams.
    std::condition_variable cacheChanged_;
    /// Counts the calls of addToCache, wrapping. Unlike lastId_ it changes with every entry, also
    /// when the numbering starts again at the number that a stream saw last.
    std::uint32_t entriesAdded_ QWK_GUARDED_BY(this) = 0;
    bool streamsEnding_ QWK_GUARDED_BY(this) = false;
    /// Made once the log file exists.
    std::optional<UnsyncedFiles> unsyncedFiles_ QWK_GUARDED_BY(this);
};

} // namespace qwk
