#pragma once

#include <cstdio>

namespace qwk {

/// Owner of a client's socket, and of a stdio stream over it once that was asked for.
class Connection {
public:
    explicit Connection(int socket) : socket_(socket) {}
    ~Connection() { close(); }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int socket() const { return socket_; }

    /// A stream for writing to the socket; null when it cannot be opened. From here on the stream
    /// owns the descriptor.
    std::FILE* openStream();

    /// Drops what the stream could not send, so that close() never waits for the client.
    void discardUnsent();

    /// Closes the descriptor; it is closed once, however often this is called.
    void close();

private:
    int socket_;
    std::FILE* stream_ = nullptr;
};

} // namespace qwk
