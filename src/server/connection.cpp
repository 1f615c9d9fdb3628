#include "server/connection.h"

#include <stdio_ext.h>
#include <unistd.h>
#include <utility>

namespace qwk {

std::FILE* Connection::openStream() {
    stream_ = fdopen(socket_, "w");
    return stream_;
}

void Connection::discardUnsent() {
    if (stream_ != nullptr)
        __fpurge(stream_);
}

void Connection::close() {
    const int socket = std::exchange(socket_, -1);
    if (stream_ != nullptr)
        static_cast<void>(std::fclose(std::exchange(stream_, nullptr)));
    else if (socket >= 0)
        static_cast<void>(::close(socket));
}

} // namespace qwk
