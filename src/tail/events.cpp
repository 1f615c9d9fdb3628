#include "tail/events.h"

#include <cstdio>

#include "logger/sequenceNumber.h"
#include "support/paths.h"

namespace qwk::tail {

namespace {

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text)
        if (static_cast<unsigned char>(c) >= ' ') {
            if (c == '"' || c == '\\')
                result += '\\';
            result += c;
        }
    return result + '"';
}

// A number as a string, because that is how the log shows it.
std::string member(const char* name, std::uint32_t number) {
    return ",\"" + std::string(name) + "\":\"" + sequenceTag(number).substr(1, sequenceDigits) +
           '"';
}

std::string range(std::uint32_t from, std::uint32_t to) {
    return sequenceTag(from) + " to " + sequenceTag(to);
}

} // namespace

void Events::resumed(std::uint32_t last) const {
    tell("\"resumed\"" + member("after", last), "Going on after " + sequenceTag(last) + '.');
}

void Events::gap(std::uint32_t from, std::uint32_t to) const {
    tell("\"gap\"" + member("from", from) + member("to", to),
         "Entries " + range(from, to) + " are missing.");
}

void Events::cursorTooOld(std::uint32_t from, std::uint32_t to) const {
    tell("\"cursor-too-old\"" + member("from", from) + member("to", to),
         "The cursor is older than the oldest log file: entries " + range(from, to) + " are lost.");
}

void Events::wentBack(std::uint32_t last, std::uint32_t next) const {
    tell("\"went-back\"" + member("last", last) + member("next", next),
         "Numbers went back from " + range(last, next) + '.');
}

void Events::repeated(std::uint32_t from, std::uint32_t to) const {
    tell("\"repeated\"" + member("from", from) + member("to", to),
         "Entries " + range(from, to) + " are in the log files twice and printed once.");
}

void Events::noRights() const {
    tell(R"("no-rights","path":)" + quoted(controlSocketPath),
         "Cannot connect to " + quoted(controlSocketPath) +
             " (Permission denied): entries come when they are in the log file.");
}

void Events::failure(const std::string& text) const {
    tell(R"("failure","text":)" + quoted(text), text);
}

void Events::tell(const std::string& object, const std::string& sentence) const {
    if (json_)
        std::fprintf(stderr, "{\"event\":%s}\n", object.c_str());
    else
        std::fprintf(stderr, "quillwick-tail: %s\n", sentence.c_str());
}

} // namespace qwk::tail
