#pragma once

#include <cstdint>

namespace qwk {

/// The options of one request line.
struct Request {
    bool clear = false;
    bool dump = false;
    bool flush = false;
    bool listen = false;
    /// Bytes of recent log text; negative without -g.
    std::int32_t maxsize = -1;
    bool parseError = false;
};

/// Parses a request line, whose first word is the client's program name. Changes `text`.
Request parseRequest(char* text);

enum class Action { none, clear, dump, flush, deliver };

/// The action of a request without a parse error; none if it combines options that have no meaning
/// together.
Action actionOf(const Request& request);

} // namespace qwk
