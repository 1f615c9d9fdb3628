#pragma once

#include <cstdint>

namespace qwk {

/// The options of one request line.
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

/// The one action that a request without a parse error asks for; none when it combines options that
/// have no meaning together.
Action actionOf(const Request& request);

} // namespace qwk
