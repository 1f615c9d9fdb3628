#include "support/syslogCapture.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <system_error>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include "support/sandbox.h"

namespace testSupport {
namespace {

const char mark[] = "-- all before this was received --";

// "<30>Jan  1 00:00:00 identifier[123]: text"
SyslogMessage parse(const std::string& datagram) {
    constexpr std::size_t dateLength = 16;
    const std::size_t separator = datagram.find(": ", datagram.find('>') + dateLength);
    return {std::atoi(datagram.c_str() + 1), datagram.substr(separator + 2)};
}

} // namespace

SyslogCapture::SyslogCapture() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    ::closelog(); // the C library stays connected to a former receiver otherwise
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    ::unlink(address.sun_path);
    if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), address.sun_path);
    receiver_ = std::thread(&SyslogCapture::receive, this);
}

SyslogCapture::~SyslogCapture() {
    ::unlink("/dev/log");
    ::shutdown(socket_.get(), SHUT_RDWR); // wakes the receiver
    receiver_.join();
    ::closelog();
}

// A thread, because the kernel queues as few as ten datagrams and syslog() waits from then on.
void SyslogCapture::receive() {
    std::vector<char> buffer(1U << 18U);
    for (;;) {
        const ssize_t count = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return;
        const std::lock_guard<std::mutex> lock(mutex_);
        messages_.push_back(parse({buffer.data(), static_cast<std::size_t>(count)}));
    }
}

std::vector<SyslogMessage> SyslogCapture::take() {
    ::syslog(LOG_DEBUG, "%s", mark);
    while (!waitFor(mark, std::chrono::minutes(1))) {
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    messages_.erase(find(mark));
    return std::exchange(messages_, {});
}

bool SyslogCapture::waitFor(std::string_view text, std::chrono::milliseconds limit) {
    return eventually(
        limit,
        [&] {
            const std::lock_guard<std::mutex> lock(mutex_);
            return find(text) != messages_.end();
        });
}

std::vector<SyslogMessage>::iterator SyslogCapture::find(std::string_view text) {
    return std::find_if(
        messages_.begin(), messages_.end(),
        [&](const SyslogMessage& message) { return message.text.find(text) != std::string::npos; });
}

} // namespace testSupport
