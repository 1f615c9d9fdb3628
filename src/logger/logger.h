#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "logger/delivery.h"
#include "logger/logSink.h"
#include "logger/sequenceNumber.h"
#include "logger/stableStorage.h"

namespace log4cplus {
class Logger;
}

namespace qwk {

/// The rolling log file, the text of the entries that wait in the FRAM (the recent-entry buffer),
/// and the delivery of both to clients. One exists while the daemon runs.
class Logger : public LogSink {
public:
    /// Reads the configuration and opens the log file; failures are reported and survived.
    Logger();
    ~Logger() override;

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    void nextSequenceNumber(std::uint32_t& next) override;
    void sink(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
              const std::string& message) override;
    void addToCache(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                    const std::string& message) override;
    void clearCache() override;
    bool isCacheFilled() override;
    /// Throws std::system_error when the mutex fails.
    void lock() override;
    /// Releases the lock and then, when lines were written under it, returns only once they are on
    /// stable storage. A failure of that is reported.
    void unlock() override;

    /// Highest journal priority that is logged, 1 to 6.
    std::int32_t logLevel() const { return logLevel_; }

    /// The log line of an entry, without a newline: "[%08x] YYYY-MM-DD hh:mm:ss.mmm message" in
    /// local time. The caller holds the lock, because the time conversion has one shared result.
    std::string formatLine(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                           const std::string& message);

    // Sequence index: finds lines in log files and in the recent-entry buffer. All return 0, or -1
    // when nothing is found or a read fails; out-parameters are written only on success. None uses
    // the logger's fields or its lock.

    /// Moves `offset` behind the first newline at or after it.
    int findNextLine(const std::string& path, std::uint32_t& offset);
    int findNextLine(const char* data, int size, std::uint32_t& offset);

    /// Finds the first numbered line that starts at `offset` (only when that is 0) or behind a
    /// newline at or after it; sets its number and its start. Moves the position of `fd`.
    int readIdAt(int fd, std::uint32_t& offset, std::uint32_t& id);

    /// Finds the last numbered line that has a newline in front of it. Moves the position of `fd`.
    int readLastId(int fd, std::uint32_t& offset, std::uint32_t& id);

    /// Finds the line numbered `id`; -2 when the file cannot be opened.
    int findId(const std::string& path, std::uint32_t id, std::uint32_t& offset);
    /// Finds the first "[%08x]" of `id`, wherever it stands.
    int findId(const char* data, int size, std::uint32_t id, std::uint32_t& offset);

    // Delivery to one client. The caller of all but streamLogs holds the lock.

    /// Sends what the socket takes at once of `data`. Returns the number of bytes sent, with
    /// `wouldBlock` true when the socket was full before all were, or -1 when the connection is
    /// unusable; the state then stands as before the call.
    int sendBuffer(SendState& state, const char* data, int length, bool& wouldBlock);
    /// Sends the file `name` from byte `off` on. Results as sendBuffer; -1 also for a bad file.
    int sendFile(SendState& state, int off, const std::string& name, bool& wouldBlock);
    /// Sends the recent-entry buffer from byte `off` on and its terminating NUL.
    int sendCache(SendState& state, int off, bool& wouldBlock);
    /// Sends a list of sources, oldest first, until the socket is full; 0 or -1.
    int sendFiles(SendState& state, const std::vector<LogFile>& files, bool& wouldBlock);

    /// Lists the newest sources that hold at most `maxsize` bytes, from a line start on.
    void findFilesBySize(int maxsize, std::vector<LogFile>& files);
    /// Lists what follows the first `off` bytes of line `id`; falls back to the list by size when
    /// that place is gone.
    void findFilesAfterId(std::uint32_t id, int off, int maxsize, std::vector<LogFile>& files);

    /// Sends the newest log bytes, at most `maxsize` (0 or more), to a non-blocking `socket`, which
    /// stays open; with `listen` then every new line, until the client goes or streams are ended.
    /// Returns 0, or -1 when the transfer buffer cannot be allocated; throws std::system_error when
    /// the mutex fails. Waits for the client without the lock.
    int streamLogs(int maxsize, bool listen, int socket);

    /// Makes every stream end, waiting and future ones. The caller holds the lock.
    void endStreams();

private:
    void readConfiguration();

    /// findId where low.id < id < high.id: by interpolation, and by a walk over what it leaves.
    int findIdBetween(int fd, std::uint32_t id, NumberedLine low, NumberedLine high,
                      std::uint32_t& offset);
    /// The start of a line below `id` closely before `place`, where that line should have been; at
    /// worst that of `low`. In a file whose lines differ in length the interpolation ends near the
    /// line while its lower bound may still be the file's first line.
    std::uint32_t lineBefore(int fd, std::uint32_t id, std::uint32_t place,
                             const NumberedLine& low);
    /// Visits the numbered lines from `from` on until `id`, a number above `highest` or the end.
    int walkToId(int fd, std::uint32_t id, std::uint32_t from, std::uint32_t current,
                 std::uint32_t highest, std::uint32_t& offset);

    // The steps of findFilesBySize. The caller holds the lock.
    /// Lists the recent-entry buffer or its end; false when that is all that fits.
    bool addRecentEntries(int maxsize, std::vector<LogFile>& files);
    /// Lists the log files behind `taken` bytes, down to the one of which only the end fits.
    void addLogFiles(int maxsize, std::int64_t taken, std::vector<LogFile>& files);
    /// findFilesAfterId without its fallback; false when the place is gone.
    bool findPlaceAfterId(std::uint32_t id, int off, std::vector<LogFile>& files);

    // The steps of streamLogs. They take the lock where they need it, but for sendListed. False
    // tells that the stream has ended.
    struct Stream;
    bool deliverNewest(Stream& stream);
    /// Delivers what follows the resume point.
    bool deliverRest(Stream& stream);
    bool sendListed(Stream& stream);
    bool deliverBacklog(Stream& stream);
    void followLog(Stream& stream);
    /// Waits for an entry since the last delivery; true when streams are to end.
    bool waitForEntry(Stream& stream);

    // Constant after construction.
    std::unique_ptr<log4cplus::Logger> logger_;
    long logSize_ = 5242880;
    std::int32_t logLevel_ = 4;
    std::int32_t logCount_ = 20;

    // Guarded by mutex_, which also keeps the log file and its rolled copies as they are.
    std::string cache_;
    std::mutex mutex_;
    bool cacheFilled_ = false;
    /// Lines were dropped from the front of cache_ since it was last empty.
    bool dropReported_ = false;
    std::uint32_t lastId_ = 0;
    /// Notified after every addToCache and by endStreams.
    std::condition_variable cacheChanged_;
    /// Counts the calls of addToCache, wrapping. Unlike lastId_ it differs after every entry, also
    /// when the numbering starts again at the number that a stream saw last.
    std::uint32_t additions_ = 0;
    bool streamsEnding_ = false;
    /// Lines were written since the lock was taken.
    bool linesUnsynced_ = false;
    /// Made once the log file is there.
    std::unique_ptr<LogStorage> storage_;
};

} // namespace qwk
