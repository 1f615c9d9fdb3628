#include "tail/cursorFile.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

#include "support/diagnostics.h"
#include "support/fileDescriptor.h"

namespace qwk::tail {

namespace {

// The first line of the file. One line for each entry follows, oldest first: its kind (an anchor,
// or one of the newest), its number, its fingerprint and its size in the chip.
constexpr char firstLine[] = "quillwick-tail cursor 1\n";
constexpr char lastLine[] = "end\n";

std::string lineOf(const char* kind, const Mark& mark) {
    char line[64];
    std::snprintf(line, sizeof line, "%s %08" PRIx32 " %016" PRIx64 " %" PRIu32 "\n", kind,
                  mark.number, mark.fingerprint, mark.size);
    return line;
}

std::string readAll(int file) {
    std::string text;
    char block[4096];
    for (ssize_t got; (got = readSome(file, block, sizeof block)) > 0;)
        text.append(block, static_cast<std::size_t>(got));
    return text;
}

bool writeAll(int file, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written =
            retryOnInterrupt([&] { return write(file, text.data() + done, text.size() - done); });
        if (written < 0)
            return false;
        done += static_cast<std::size_t>(written);
    }
    return fsync(file) == 0;
}

// False when the text is no cursor file.
bool parse(const std::string& text, History& history) {
    const std::size_t size = text.size();
    const std::size_t ending = sizeof lastLine - 1;
    std::size_t at = sizeof firstLine - 1;
    if (size < at + ending || text.compare(0, at, firstLine) != 0 ||
        text.compare(size - ending, ending, lastLine) != 0)
        return false;
    while (at < size - ending) {
        char kind[7];
        Mark mark;
        int length = 0;
        if (std::sscanf(text.c_str() + at, "%6s %8" SCNx32 " %16" SCNx64 " %" SCNu32 "%n", kind,
                        &mark.number, &mark.fingerprint, &mark.size, &length) != 4)
            return false;
        if (std::string(kind) == "anchor")
            history.setAnchor(mark);
        else
            history.add(mark);
        at += static_cast<std::size_t>(length) + 1;
    }
    return at == size - ending;
}

} // namespace

void CursorFile::load(History& history) const {
    const FileDescriptor file = openForReading(path_.c_str());
    if (!file.isOpen() && errno == ENOENT)
        return;
    if (!file.isOpen())
        throw std::runtime_error("Cannot read \"" + path_ + "\" (" + errorText(errno) + ").");
    const std::string text = readAll(file.get());
    if (!text.empty() && !parse(text, history))
        throw std::runtime_error('"' + path_ + "\" is no cursor file.");
}

bool CursorFile::save(const History& history, std::size_t untaken) const {
    std::string text = firstLine;
    if (history.anchor())
        text += lineOf("anchor", *history.anchor());
    const auto& marks = history.marks();
    for (std::size_t i = history.firstNeeded(untaken); i + untaken < marks.size(); ++i)
        text += lineOf("entry", marks[i]);
    text += lastLine;

    const std::string temporary = path_ + ".new";
    {
        const FileDescriptor file(
            open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!file.isOpen() || !writeAll(file.get(), text))
            return false;
    }
    if (std::rename(temporary.c_str(), path_.c_str()) != 0)
        return false;
    const std::size_t slash = path_.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path_.substr(0, slash + 1);
    const FileDescriptor opened = openForReading(folder.c_str());
    return opened.isOpen() && fsync(opened.get()) == 0;
}

} // namespace qwk::tail
