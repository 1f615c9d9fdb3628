#include "logger/sequenceNumber.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qwk {

std::string sequenceTag(std::uint32_t id) {
    char tag[sequenceDigits + 3];
    std::snprintf(tag, sizeof tag, "[%08x]", id);
    return tag;
}

bool parseSequenceNumber(const char* digits, std::uint32_t& id) {
    char text[sequenceDigits + 1] = {};
    std::memcpy(text, digits, sequenceDigits);
    char* end = nullptr;
    const unsigned long number = std::strtoul(text, &end, 16);
    if (end != text + sequenceDigits)
        return false;
    // A sign makes strtoul negate in the width of long; the low 32 bits are the same in any width.
    id = static_cast<std::uint32_t>(number);
    return true;
}

} // namespace qwk
