#include "tail/output.h"

#include <climits>
#include <poll.h>
#include <unistd.h>

#include "support/fileDescriptor.h"
#include "support/stopRequest.h"

namespace qwk::tail {

void Output::add(const Entry& entry) {
    if (!piece_.empty() && piece_.size() + entry.text.size() + 1 > PIPE_BUF)
        flush();
    piece_ += entry.text;
    piece_ += '\n';
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
    }
}

void Output::sync() const {
    static_cast<void>(fdatasync(STDOUT_FILENO)); // a pipe or a terminal has nothing to sync
}

bool Output::isOver() const {
    return error_ != 0 || stopRequest().isRequested();
}

} // namespace qwk::tail
