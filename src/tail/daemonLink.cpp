#include "tail/daemonLink.h"

#include <cerrno>
#include <memory>
#include <poll.h>
#include <sys/socket.h>

#include "support/controlSocket.h"
#include "support/stopRequest.h"

namespace qwk::tail {

namespace {

constexpr std::size_t receiveSize = 65536;

// A request is short enough for the socket to take it whole.
bool sendRequest(int socket, const std::string& line) {
    const std::size_t length = line.size() + 1;
    return retryOnInterrupt([&] { return send(socket, line.c_str(), length, MSG_NOSIGNAL); }) ==
           static_cast<ssize_t>(length);
}

} // namespace

DaemonLink::DaemonLink(Kind kind, std::size_t size)
    : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    // A daemon that accepts no connection counts as absent: a connect() that waits would not notice
    // a stop.
    const sockaddr_un address = controlSocketAddress();
    const std::string line = std::string("quillwick-tail ") + (kind == Kind::live ? "-l " : "") +
                             "-g " + std::to_string(size);
    if (socket_.isOpen() &&
        (connect(socket_.get(), asSocketAddress(address), sizeof address) != 0 ||
         !sendRequest(socket_.get(), line))) {
        const int keptErrno = errno;
        socket_.reset();
        errno = keptErrno;
    }
}

bool DaemonLink::receive(std::string& text) {
    pollfd watched[2] = {{socket_.get(), POLLIN, 0}, {stopRequest().descriptor(), POLLIN, 0}};
    if (retryOnInterrupt([&] { return poll(watched, 2, -1); }) < 0 || stopRequest().isRequested())
        return false;
    const std::size_t before = text.size();
    text.resize(before + receiveSize);
    const ssize_t got =
        retryOnInterrupt([&] { return recv(socket_.get(), text.data() + before, receiveSize, 0); });
    text.resize(before + static_cast<std::size_t>(got > 0 ? got : 0));
    return got > 0;
}

bool DaemonLink::discard() {
    char text[4096];
    ssize_t got;
    do
        got = retryOnInterrupt([&] { return recv(socket_.get(), text, sizeof text, 0); });
    while (got > 0);
    return got < 0 && errno == EAGAIN;
}

std::optional<std::string> recentText(std::size_t size) {
    DaemonLink link(DaemonLink::Kind::once, size);
    if (!link.isOpen())
        return std::nullopt;
    std::string text;
    while (link.receive(text)) {
    }
    // The chip's last line ends with a zero byte in the place of its newline.
    if (!text.empty() && text.back() == '\0')
        text.back() = '\n';
    return text;
}

} // namespace qwk::tail
