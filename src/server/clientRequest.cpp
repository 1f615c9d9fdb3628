// One client's request, from its first byte to the end of its thread: the part of Server that a
// client thread runs.

#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <sys/socket.h>

#include <log4cplus/logger.h>

#include "eeprom/eeprom.h"
#include "server/server.h"
#include "support/diagnostics.h"
#include "support/fileDescriptor.h"

namespace qwk {

namespace {

constexpr std::size_t maxRequest = 1024;
constexpr int eepromTimeoutMs = 5000;

// Receives once: a request is one message. Terminates the text in `buffer`; false when the receive
// fails, which is reported.
bool receiveRequest(int socket, char (&buffer)[maxRequest + 1]) {
    const ssize_t got = retryOnInterrupt([&] { return recv(socket, buffer, maxRequest, 0); });
    if (got < 0) {
        report(LOG_ERR, "Receive error (%s).", errorText(errno).c_str());
        return false;
    }
    buffer[got] = '\0';
    return true;
}

// Sends the text and its terminating zero byte.
void sendAnswer(int socket, const char* text) {
    const std::size_t length = std::strlen(text) + 1;
    for (std::size_t done = 0; done < length;) {
        const ssize_t sent =
            retryOnInterrupt([&] { return send(socket, text + done, length - done, 0); });
        if (sent < 0)
            report(LOG_ERR, "Send error (%s).", errorText(errno).c_str());
        if (sent <= 0)
            return;
        done += static_cast<std::size_t>(sent);
    }
}

} // namespace

void Server::handleClient(int socket) {
    Connection connection(socket);
    try {
        serve(connection);
    } catch (const std::exception& error) {
        report(LOG_ERR, "Cannot serve client (%s).", error.what());
    }
    connection.discardUnsent();
    // Frees what log4cplus keeps for this thread, which it would otherwise do at some time after
    // the daemon believes the thread to have ended.
    log4cplus::threadCleanup();
    deregister(connection);
}

void Server::serve(Connection& connection) {
    char buffer[maxRequest + 1];
    if (!receiveRequest(connection.socket(), buffer))
        return;
    const Request request = parseRequest(buffer);
    const char* answer = request.parseError ? "Parse error." : carryOut(request, connection);
    if (*answer != '\0')
        sendAnswer(connection.socket(), answer);
}

const char* Server::carryOut(const Request& request, Connection& connection) {
    const Action action = actionOf(request);
    switch (action) {
    case Action::clear:
    case Action::dump:
    case Action::flush:
        return useEeprom(action, connection);
    case Action::deliver:
        deliver(request, connection.socket());
        break;
    case Action::none:
        break;
    }
    return "";
}

const char* Server::useEeprom(Action action, Connection& connection) {
    const std::unique_ptr<Eeprom> eeprom(Eeprom::open(logger_, eepromTimeoutMs));
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

void Server::deliver(const Request& request, int socket) {
    const int flags = fcntl(socket, F_GETFL);
    if (flags >= 0 && fcntl(socket, F_SETFL, flags | O_NONBLOCK) >= 0)
        logger_->streamLogs(request.maxsize, request.listen, socket);
}

void Server::deregister(Connection& connection) {
    const int socket = connection.socket();
    const std::lock_guard<std::mutex> held(clientsMutex_);
    connection.close();
    const auto entry = clients_.find(socket);
    if (entry != clients_.end()) {
        entry->second->detach();
        clients_.erase(entry);
    }
}

} // namespace qwk
