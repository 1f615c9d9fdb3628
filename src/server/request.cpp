#include "server/request.h"

#include <cstring>

#include "support/numbers.h"

namespace qwk {

namespace {

// Each option may be given once.
void setOnce(bool& flag, Request& request) {
    request.parseError |= flag;
    flag = true;
}

void parseMaxsize(const char* text, Request& request) {
    if (text == nullptr) {
        request.parseError = true;
        return;
    }
    const char* end = nullptr;
    request.maxsize = parseDecimal(text, end);
    request.parseError |= end == text || *end != '\0';
}

} // namespace

Request parseRequest(char* text) {
    Request request;
    char* rest = nullptr;
    if (strtok_r(text, " ", &rest) == nullptr)
        return request;
    while (const char* word = strtok_r(nullptr, " ", &rest))
        if (std::strcmp(word, "--clear") == 0)
            setOnce(request.clear, request);
        else if (std::strcmp(word, "-p") == 0)
            setOnce(request.dump, request);
        else if (std::strcmp(word, "-f") == 0)
            setOnce(request.flush, request);
        else if (std::strcmp(word, "-l") == 0)
            setOnce(request.listen, request);
        else if (std::strcmp(word, "-g") == 0)
            parseMaxsize(strtok_r(nullptr, "", &rest), request); // the whole rest
        else
            request.parseError = true;
    return request;
}

Action actionOf(const Request& request) {
    const int chipActions = int{request.clear} + int{request.dump} + int{request.flush};
    if (chipActions == 0)
        return request.maxsize >= 0 ? Action::deliver : Action::none;
    if (chipActions > 1 || request.listen || request.maxsize >= 0)
        return Action::none;
    if (request.clear)
        return Action::clear;
    return request.dump ? Action::dump : Action::flush;
}

} // namespace qwk
