#include "main/client.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdio_ext.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/controlSocket.h"
#include "support/diagnostics.h"
#include "support/fileDescriptor.h"

namespace qwk {

namespace {

constexpr std::size_t receiveSize = 255;
constexpr int pollPeriodMs = 1000;

// The connected socket, or none; failures are reported.
FileDescriptor connectToDaemon() {
    FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.isOpen()) {
        report(LOG_ERR, "Cannot create socket (%s).", errorText(errno).c_str());
        return {};
    }
    const sockaddr_un address = controlSocketAddress();
    if (connect(socket.get(), asSocketAddress(address), sizeof address) != 0) {
        report(LOG_ERR, "Cannot connect to \"%s\" (%s).", controlSocketPath,
               errorText(errno).c_str());
        return {};
    }
    return socket;
}

// Sends the line with its terminating zero byte; 0, or -1 when a send fails (reported).
int sendLine(int socket, const std::string& line) {
    if (sendAll(socket, line.c_str(), line.size() + 1) == 0)
        return 0;
    report(LOG_ERR, "Send failed (%s).", errorText(errno).c_str());
    return -1;
}

enum class Wait { answer, outputGone, failed };

// Waits for the next piece of the answer, or until the reader of `out` has left: otherwise, with a
// quiet log, the client of a closed pipe would wait for ever. A stream without a descriptor has no
// reader that could leave, and poll() skips its -1.
Wait waitForAnswer(int socket, std::FILE* out) {
    for (;;) {
        pollfd watched[2] = {{socket, POLLIN, 0}, {fileno(out), 0, 0}};
        const int ready = retryOnInterrupt([&] { return poll(watched, 2, pollPeriodMs); });
        if (ready < 0) {
            report(LOG_ERR, "Poll failed (%s).", errorText(errno).c_str());
            return Wait::failed;
        }
        if (watched[0].revents != 0)
            return Wait::answer;
        if (ready > 0)
            return Wait::outputGone;
    }
}

// Writes text that the caller left in the stream's buffer. A flush would drop the part that a
// non-blocking output does not accept, so the output blocks during the flush.
bool flushBuffered(std::FILE* out) {
    if (__fpending(out) == 0)
        return true;
    const int flags = fcntl(fileno(out), F_GETFL);
    const bool wouldDrop = flags >= 0 && (flags & O_NONBLOCK) != 0;
    if (wouldDrop)
        static_cast<void>(fcntl(fileno(out), F_SETFL, flags & ~O_NONBLOCK));
    const bool flushed = std::fflush(out) == 0;
    if (wouldDrop)
        static_cast<void>(fcntl(fileno(out), F_SETFL, flags));
    return flushed;
}

// Writes all of the bytes and waits while the output is full. False when the output fails.
bool writeToDescriptor(int descriptor, const char* text, std::size_t length) {
    while (length > 0) {
        const ssize_t written = retryOnInterrupt([&] { return write(descriptor, text, length); });
        if (written >= 0) {
            text += written;
            length -= static_cast<std::size_t>(written);
        } else if (errno == EAGAIN) {
            pollfd output{descriptor, POLLOUT, 0};
            poll(&output, 1, pollPeriodMs);
        } else {
            return false;
        }
    }
    return true;
}

// Writes the text immediately and in order. With a descriptor, the text bypasses the stream's
// buffer, because a flush can drop text from it. False when the output fails.
bool writeOut(std::FILE* out, const char* text, std::size_t length) {
    if (fileno(out) < 0)
        return std::fwrite(text, 1, length, out) == length && std::fflush(out) == 0;
    return flushBuffered(out) && writeToDescriptor(fileno(out), text, length);
}

// Prints a received piece, which a zero byte follows; false when the output fails.
bool printPiece(char* piece, std::size_t length, std::FILE* out) {
    std::size_t printed = std::strlen(piece);
    if (piece[length - 1] == '\0')
        piece[printed++] = '\n';
    return writeOut(out, piece, printed);
}

} // namespace

int sendRequest(const std::string& requestLine, std::FILE* out) {
    const FileDescriptor socket = connectToDaemon();
    if (!socket.isOpen())
        return -1;
    const int result = sendLine(socket.get(), requestLine);
    char piece[receiveSize + 1] = {};
    for (;;) {
        const Wait wait = waitForAnswer(socket.get(), out);
        if (wait == Wait::failed)
            return -1;
        if (wait == Wait::outputGone)
            return result;
        const ssize_t got =
            retryOnInterrupt([&] { return recv(socket.get(), piece, receiveSize, 0); });
        if (got <= 0)
            return result;
        piece[got] = '\0';
        if (!printPiece(piece, static_cast<std::size_t>(got), out))
            return result;
    }
}

std::string requestLine(int argc, const char* const* argv) {
    std::string line;
    for (int i = 0; i < argc; ++i) {
        if (i > 0)
            line += ' ';
        line += argv[i];
    }
    return line;
}

void printUsage() {
    // The text is fixed. It has "-c", although the daemon accepts only "--clear".
    std::fputs("Usage: quillwick\n"
               "       quillwick -c\n"
               "       quillwick -p\n"
               "       quillwick -f\n"
               "       quillwick [-l] -g maxsize\n"
               "\n"
               "       No arguments: Read from systemd journal and write to log files\n"
               "                     (daemon mode).\n"
               "       -h            Print this message to stdout.\n"
               "       --clear       Clear cache.\n"
               "       -p            Print hex dump of cache to stdout.\n"
               "       -f            Flush cache to log file.\n"
               "       -l            Stay connected and listen for new log messages.\n"
               "       -g maxsize    Print recent logs to stdout. Size is limited to\n"
               "                     maxsize bytes.\n",
               stdout);
}

} // namespace qwk
