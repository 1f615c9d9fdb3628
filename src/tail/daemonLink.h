#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "support/fileDescriptor.h"

namespace qwk::tail {

/// A request for log text that the daemon answers over its control socket.
class DaemonLink {
public:
    enum class Kind { once, live };

    /// Asks for the newest `size` bytes, and with `live` for every new line after them. If there is
    /// no connection, errno tells why.
    DaemonLink(Kind kind, std::size_t size);

    bool isOpen() const { return socket_.isOpen(); }
    int descriptor() const { return socket_.get(); }

    /// Waits for text and appends it. False at the end of the answer, or when the program is to
    /// stop.
    bool receive(std::string& text);
    /// Throws away the text that has arrived; false at the end.
    bool discard();

private:
    FileDescriptor socket_;
};

/// The newest `size` bytes of the log, as the daemon has it in files and chip at one moment; every
/// line ends with a newline. Nothing when no daemon answers: errno tells why.
std::optional<std::string> recentText(std::size_t size);

} // namespace qwk::tail
