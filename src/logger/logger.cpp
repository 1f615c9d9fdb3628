#include "logger/logger.h"

#include <cstdio>
#include <ctime>
#include <exception>
#include <utility>

#include <log4cplus/fileappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include "logger/recentEntries.h"
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
    storage_ = std::make_unique<LogStorage>();
}

Logger::~Logger() {
    logger_.reset();
}

void Logger::nextSequenceNumber(std::uint32_t& next) {
    next = 0;
    const FileDescriptor file = openForReading(logFilePath);
    std::uint32_t offset;
    std::uint32_t id;
    if (file.isOpen() && readLastId(file.get(), offset, id) == 0)
        next = id + 1;
}

void Logger::sink(std::uint32_t id, std::int32_t priority, const std::uint64_t& time,
                  const std::string& message) {
    if (!logger_->isEnabledFor(log4cplus::FATAL_LOG_LEVEL))
        return;
    LOG4CPLUS_FATAL(*logger_, formatLine(id, priority, time, message));
    linesUnsynced_ = true;
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
    ++additions_;
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
    if (std::exchange(linesUnsynced_, false)) {
        try {
            written = storage_->filesToSync();
        } catch (const std::exception& error) { // the lock must be released all the same
            report(LOG_ERR, "Cannot sync the log file (%s).", error.what());
        }
    }
    mutex_.unlock();
    // Without the lock: no stream waits for the disk. Whoever flushes the FRAM does wait, and lets
    // go of its entries only then.
    for (const auto& file : written)
        file->sync();
}

void Logger::endStreams() {
    streamsEnding_ = true;
    cacheChanged_.notify_all();
}

std::string Logger::formatLine(std::uint32_t id, std::int32_t /*priority*/,
                               const std::uint64_t& time, const std::string& message) {
    const std::uint64_t rounded = time + 500; // to the nearest millisecond, with carry
    const auto seconds = static_cast<std::time_t>(rounded / 1000000);
    const auto milliseconds = static_cast<unsigned>(rounded % 1000000 / 1000);
    // localtime() follows a change of the board's time zone while the daemon runs; localtime_r()
    // need not. Its shared result is safe under the lock.
    const std::tm* local = std::localtime(&seconds);
    const std::tm when = local != nullptr ? *local : std::tm{};

    char head[128];
    const int length = std::snprintf(
        head, sizeof head, "[%08x] %04d-%02d-%02d %02d:%02d:%02d.%03u ", id, when.tm_year + 1900,
        when.tm_mon + 1, when.tm_mday, when.tm_hour, when.tm_min, when.tm_sec, milliseconds);
    std::string line;
    line.reserve(static_cast<std::size_t>(length) + message.size());
    line.append(head, static_cast<std::size_t>(length));
    line += message;
    return line;
}

} // namespace qwk
