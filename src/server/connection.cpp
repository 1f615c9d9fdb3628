#include "server/connection.h"

#include <cassert>
#include <unistd.h>
#include <utility>

namespace qwk {

std::FILE* Connection::openStream() {
    assert(stream_ == nullptr);
    stream_ = fdopen(socket_, "w");
    return stream_;
}

void Connection::close() {
    const int socket = std::exchange(socket_, -1);
    if (stream_ != nullptr)
        static_cast<void>(std::fclose(std::exchange(stream_, nullptr)));
    else if (socket >= 0)
        static_cast<void>(::close(socket));
}

} // namespace qwk
