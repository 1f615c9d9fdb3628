#include "support/syslogCapture.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <system_error>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace testSupport {
namespace {

const char path[] = "/dev/log";
const char mark[] = "-- all before this was received --";

// "<30>Jan  1 00:00:00 identifier[123]: text"
SyslogMessage parse(const std::string& datagram) {
    constexpr std::size_t dateLength = 16;
    const std::size_t date = datagram.find('>') + 1;
    const std::size_t separator = datagram.find(": ", date + dateLength);
    return {std::atoi(datagram.c_str() + 1), datagram.substr(separator + 2)};
}

} // namespace

SyslogCapture::SyslogCapture() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    ::closelog(); // the C library stays connected to a former receiver otherwise
    ::unlink(path);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::copy(std::begin(path), std::end(path), address.sun_path);
    if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), path);
    receiver_ = std::thread(&SyslogCapture::receive, this);
}

SyslogCapture::~SyslogCapture() {
    ::unlink(path);
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
        SyslogMessage message = parse({buffer.data(), static_cast<std::size_t>(count)});
        const std::lock_guard<std::mutex> lock(mutex_);
        messages_.push_back(std::move(message));
        received_.notify_all();
    }
}

std::vector<SyslogMessage> SyslogCapture::take() {
    ::syslog(LOG_DEBUG, "%s", mark);
    std::unique_lock<std::mutex> lock(mutex_);
    auto found = messages_.end();
    received_.wait(lock, [&] {
        found = std::find_if(messages_.begin(), messages_.end(),
                             [](const SyslogMessage& message) { return message.text == mark; });
        return found != messages_.end();
    });
    messages_.erase(found);
    return std::exchange(messages_, {});
}

bool SyslogCapture::waitFor(std::string_view text, std::chrono::milliseconds limit) {
    const auto fits = [&](const auto& message) { return message.text.find(text) != text.npos; };
    std::unique_lock<std::mutex> lock(mutex_);
    return received_.wait_for(
        lock, limit, [&] { return std::any_of(messages_.begin(), messages_.end(), fits); });
}

} // namespace testSupport
