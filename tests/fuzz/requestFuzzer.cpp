// Any bytes as a request line: without an error each word after the first is an option, once.
#include <cstring>
#include <gtest/gtest.h>

#include "server/request.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<char> text(std::min<std::size_t>(size, 1024) + 1); // as received, and a NUL
    std::copy_n(data, text.size() - 1, text.begin());
    int options = 0;
    for (const char* at = text.data() + std::strspn(text.data(), " "); *at != '\0'; ++at)
        options += at[0] == ' ' && at[1] != ' ' && at[1] != '\0';
    const bool hasValue = std::strstr(text.data(), "-g") != nullptr;
    const qwk::Request request = qwk::parseRequest(text.data());
    const int flags = request.clear + request.dump + request.flush + request.listen;
    EXPECT_TRUE(request.parseError || hasValue || options == flags);
    EXPECT_TRUE(qwk::actionOf(request) != qwk::Action::deliver || request.maxsize >= 0);
    return 0;
}
