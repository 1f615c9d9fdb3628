#pragma once

#include <cstdio>

namespace qwk {

/// Owner of a client's socket, and of the stdio stream over it if there is one.
class Connection {
public:
    explicit Connection(int socket) : socket_(socket) {}
    ~Connection() { close(); }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int socket() const { return socket_; }

    /// A stream for writing to the socket; null when it cannot be opened. Call it once: from then
    /// on the stream owns the descriptor.
    std::FILE* openStream();

    /// Closes the descriptor; later calls have no effect. Never waits for the client, because a
    /// dump leaves nothing in the stream's buffer: it ends with a flush, and a failed flush drops
    /// the text.
    void close();

private:
    int socket_;
    std::FILE* stream_ = nullptr;
};

} // namespace qwk
