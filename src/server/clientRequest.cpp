#include "server/clientRequest.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/socket.h>

#include "eeprom/eeprom.h"
#include "logger/logger.h"
#include "server/request.h"
#include "support/diagnostics.h"
#include "support/fileDescriptor.h"

namespace qwk {

namespace {

constexpr std::size_t maxRequest = 1024;
constexpr int eepromTimeoutMs = 5000;

// Receives once: a request is one message. Terminates the text in `buffer`; false when the receive
// fails (reported).
bool receiveRequest(int socket, char (&buffer)[maxRequest + 1]) {
    const ssize_t got = retryOnInterrupt([&] { return recv(socket, buffer, maxRequest, 0); });
    if (got < 0) {
        report(LOG_ERR, "Receive error (%s).", errorText(errno).c_str());
        return false;
    }
    buffer[got] = '\0';
    return true;
}

// Returns the answer, which may be empty.
const char* runChipAction(Action action, Connection& connection, Logger& logger) {
    const std::unique_ptr<Eeprom> eeprom(Eeprom::open(&logger, eepromTimeoutMs));
    if (!eeprom)
        return "Cannot access EEPROM.";
    if (action == Action::clear)
        eeprom->clear();
    else if (action == Action::flush)
        eeprom->flush();
    else if (std::FILE* out = connection.openStream())
        eeprom->hexDump(out);
    return "";
}

void deliverLogs(const Request& request, int socket, Logger& logger) {
    const int flags = fcntl(socket, F_GETFL);
    if (flags >= 0 && fcntl(socket, F_SETFL, flags | O_NONBLOCK) >= 0)
        logger.streamLogs(request.maxsize, request.listen, socket);
}

// Returns the answer, which may be empty.
const char* carryOut(const Request& request, Connection& connection, Logger& logger) {
    const Action action = actionOf(request);
    switch (action) {
    case Action::clear:
    case Action::dump:
    case Action::flush:
        return runChipAction(action, connection, logger);
    case Action::deliver:
        deliverLogs(request, connection.socket(), logger);
        break;
    case Action::none:
        break;
    }
    return "";
}

// Sends the terminating zero byte, too: it marks the end of the answer for the client.
void sendAnswer(int socket, const char* text) {
    if (sendAll(socket, text, std::strlen(text) + 1) != 0)
        report(LOG_ERR, "Send error (%s).", errorText(errno).c_str());
}

} // namespace

void serveClient(Connection& connection, Logger& logger) {
    char buffer[maxRequest + 1];
    if (!receiveRequest(connection.socket(), buffer))
        return;
    const Request request = parseRequest(buffer);
    const char* answer =
        request.parseError ? "Parse error." : carryOut(request, connection, logger);
    if (*answer != '\0')
        sendAnswer(connection.socket(), answer);
}

} // namespace qwk
