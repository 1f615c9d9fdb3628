#pragma once

#include <cstdint>

namespace qwk {

/// What one request line asks for.
struct Request {
    bool clear = false;
    bool dump = false;
    bool flush = false;
    bool listen = false;
    /// Bytes of recent log text; negative when not asked for.
    std::int32_t maxsize = -1;
    bool parseError = false;
};

/// Parses a request line, whose first word is the client's program name. `text` is taken apart.
Request parseRequest(char* text);

enum class Action { none, clear, dump, flush, deliver };

/// The one action that a request without a parse error stands for; combinations that have no
/// meaning stand for none.
Action actionOf(const Request& request);

} // namespace qwk
