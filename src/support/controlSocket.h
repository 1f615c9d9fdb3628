#pragma once

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

#include "support/paths.h"

namespace qwk {

/// The address that the daemon binds and the client connects to. Pass its whole size to the calls.
inline sockaddr_un controlSocketAddress() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, controlSocketPath, sizeof address.sun_path - 1);
    return address;
}

/// The type that the socket calls expect.
inline const sockaddr* asSocketAddress(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}
inline sockaddr* asSocketAddress(sockaddr_un& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

} // namespace qwk
