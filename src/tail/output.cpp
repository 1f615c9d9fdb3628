#include "tail/output.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/stopRequest.h"

namespace qwk::tail {

namespace {

// After a kill the next start prints the pipe's unread text again, so that is kept small and within
// the history.
constexpr int pipeSize = 16384;
constexpr int drainPeriodMs = 5;
constexpr int longestDrainMs = 500;

bool standardOutputIsPipe() {
    struct stat status;
    return fstat(STDOUT_FILENO, &status) == 0 && S_ISFIFO(status.st_mode);
}

} // namespace

Output::Output() : isPipe_(standardOutputIsPipe()) {
    if (isPipe_) // where it fails, the pipe stays as it is
        static_cast<void>(fcntl(STDOUT_FILENO, F_SETPIPE_SZ, pipeSize));
}

void Output::add(const Entry& entry) {
    const std::size_t size = entry.text.size() + 1;
    if (!piece_.empty() && piece_.size() + size > PIPE_BUF)
        flush();
    piece_ += entry.text;
    piece_ += '\n';
    sizes_.push_back(size);
    ++unwritten_;
}

void Output::flush() {
    std::size_t done = 0;
    while (done < piece_.size() && !isOver()) {
        pollfd watched[2] = {{STDOUT_FILENO, POLLOUT, 0}, {stopRequest().descriptor(), POLLIN, 0}};
        if (poll(watched, 2, -1) < 0 || stopRequest().isRequested() || watched[0].revents == 0)
            continue;
        const ssize_t written = write(STDOUT_FILENO, piece_.data() + done, piece_.size() - done);
        if (written >= 0)
            done += static_cast<std::size_t>(written);
        else if (errno != EINTR && errno != EAGAIN)
            error_ = errno;
    }
    if (done == piece_.size()) {
        piece_.clear();
        unwritten_ = 0;
        static_cast<void>(untaken()); // forgets the sizes of those that were read
    }
}

void Output::drain() {
    for (int waited = 0; error_ == 0 && unreadBytes() > 0; waited += drainPeriodMs) {
        if (stopRequest().isRequested() && waited >= longestDrainMs)
            return;
        // Only an error shows here: the reader has left.
        pollfd pipe{STDOUT_FILENO, 0, 0};
        if (poll(&pipe, 1, drainPeriodMs) > 0)
            return;
    }
}

void Output::sync() const {
    static_cast<void>(fdatasync(STDOUT_FILENO)); // a pipe or a terminal has nothing to sync
}

std::size_t Output::untaken() {
    std::size_t bytes = unreadBytes() + piece_.size();
    std::size_t count = 0;
    while (count < sizes_.size() && bytes > 0) {
        ++count;
        bytes -= std::min(bytes, sizes_[sizes_.size() - count]);
    }
    count = std::max(count, unwritten_);
    sizes_.erase(sizes_.begin(), sizes_.end() - static_cast<std::ptrdiff_t>(count));
    return count;
}

bool Output::isOver() const {
    return error_ != 0 || stopRequest().isRequested();
}

std::size_t Output::unreadBytes() const {
    int bytes = 0;
    return isPipe_ && ioctl(STDOUT_FILENO, FIONREAD, &bytes) == 0 && bytes > 0
               ? static_cast<std::size_t>(bytes)
               : 0;
}

} // namespace qwk::tail
