#include "logger/logger.h"

#include <exception>
#include <utility>

#include <log4cplus/fileappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include "logger/logFileRepair.h"
#include "logger/logLine.h"
#include "logger/recentEntries.h"
#include "logger/sequenceIndex.h"
#include "support/diagnostics.h"
#include "support/fileDescriptor.h"
#include "support/paths.h"

namespace qwk {

Logger::Logger() {
    readConfiguration();
    endTornLine();
    logger_ = std::make_unique<log4cplus::Logger>(log4cplus::Logger::getInstance("quillwick"));
    constexpr bool immediateFlush = true; // clients read the file as soon as a line is logged
    const log4cplus::SharedAppenderPtr appender(
        new log4cplus::RollingFileAppender(logFilePath, logSize_, logCount_, immediateFlush));
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>("%m%n"));
    logger_->addAppender(appender);
    unsyncedFiles_.emplace();
}

Logger::~Logger() {
    logger_.reset();
}

void Logger::nextSequenceNumber(std::uint32_t& next) {
    next = 0;
    const FileDescriptor file = openForReading(logFilePath);
    std::uint32_t offset;
    std::uint32_t id;
    if (file.isOpen() && sequenceIndex::readLastId(file.get(), offset, id) == 0)
        next = id + 1;
}

void Logger::sink(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                  const std::string& message) {
    if (!logger_->isEnabledFor(log4cplus::FATAL_LOG_LEVEL))
        return;
    // FATAL for every line: a level that no configuration of log4cplus switches off.
    LOG4CPLUS_FATAL(*logger_, formatLine(id, priority, time, message));
    unsyncedFiles_->lineWritten();
}

void Logger::addToCache(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                        const std::string& message) {
    const std::size_t before = cache_.size();
    if (!cache_.empty() && cache_.back() != '\n')
        cache_ += '\n';
    cache_ += formatLine(id, priority, time, message);
    report(LOG_DEBUG, "Adding [%08x] to cache (%d bytes).", id,
           static_cast<int>(cache_.size() - before));
    if (dropOldestLines(cache_) && !std::exchange(dropReported_, true))
        report(LOG_WARNING, "Too many recent entries, dropping the oldest.");
    lastId_ = id;
    ++entriesAdded_;
    cacheFilled_ = true;
    cacheChanged_.notify_all();
}

void Logger::clearCache() {
    report(LOG_DEBUG, "Cache cleared.");
    cache_.clear();
    dropReported_ = false;
}

bool Logger::isCacheFilled() {
    return cacheFilled_;
}

void Logger::lock() {
    mutex_.lock();
}

void Logger::unlock() {
    StableFiles written;
    try {
        written = unsyncedFiles_->take();
    } catch (const std::exception& error) { // the lock must still be released
        report(LOG_ERR, "Cannot sync the log file (%s).", error.what());
    }
    mutex_.unlock();
    // Without the lock, so that no stream waits for the disk. A flush of the FRAM does wait:
    // entries may be dropped from the chip only once their lines are on disk.
    for (const auto& file : written)
        file->sync();
}

void Logger::endStreams() {
    streamsEnding_ = true;
    cacheChanged_.notify_all();
}

std::string Logger::formatLine(std::uint32_t id, std::int32_t /*priority*/,
                               const std::uint64_t& time, const std::string& message) {
    return formatLogLine(id, time, message);
}

int Logger::findNextLine(const std::string& path, std::uint32_t& offset) {
    return sequenceIndex::findNextLine(path, offset);
}

int Logger::findNextLine(const char* data, int size, std::uint32_t& offset) {
    return sequenceIndex::findNextLine(data, size, offset);
}

int Logger::readIdAt(int fd, std::uint32_t& offset, std::uint32_t& id) {
    return sequenceIndex::readIdAt(fd, offset, id);
}

int Logger::readLastId(int fd, std::uint32_t& offset, std::uint32_t& id) {
    return sequenceIndex::readLastId(fd, offset, id);
}

int Logger::findId(const std::string& path, std::uint32_t id, std::uint32_t& offset) {
    return sequenceIndex::findId(path, id, offset);
}

int Logger::findId(const char* data, int size, std::uint32_t id, std::uint32_t& offset) {
    return sequenceIndex::findId(data, size, id, offset);
}

} // namespace qwk
