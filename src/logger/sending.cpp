// The lowest layer of delivery: the part of Logger that writes bytes to a client's socket and never
// waits for the client.

#include <cerrno>
#include <limits>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "logger/lineTracker.h"
#include "logger/logger.h"
#include "support/diagnostics.h"
#include "support/fileDescriptor.h"

namespace qwk {

int Logger::sendBuffer(SendState& state, const char* data, int length, bool& wouldBlock) {
    wouldBlock = false;
    int done = 0;
    while (done < length) {
        pollfd client{state.socket, POLLOUT | POLLHUP, 0};
        const int ready = ::poll(&client, 1, 0);
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
            ::send(state.socket, data + done, static_cast<std::size_t>(length - done), 0);
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
    lineTracker::recordSent(state, data, length, done);
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
        // Descriptor 0 counts as a failure; the daemon keeps it occupied.
        good = file.get() > 0 && (off == 0 || ::lseek(file.get(), start, SEEK_SET) == start);
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
    // Sends the string's terminating NUL, too, where the log file will have the newline.
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
