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

    /// A stream for writing to the socket, asked for once; null when it cannot be opened. From here
    /// on the stream owns the descriptor.
    std::FILE* openStream();

    /// Closes the descriptor; it is closed once, however often this is called. Never waits for the
    /// client, because a dump leaves nothing in the stream's buffer: it ends with a flush, and a
    /// flush that fails drops the text.
    void close();

private:
    int socket_;
    std::FILE* stream_ = nullptr;
};

} // namespace qwk
