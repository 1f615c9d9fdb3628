#include "server/server.h"

#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "logger/logger.h"
#include "server/clientRequest.h"
#include "server/connection.h"
#include "support/controlSocket.h"
#include "support/diagnostics.h"
#include "support/fileDescriptor.h"
#include "support/paths.h"

namespace qwk {

namespace {

constexpr int backlog = 10;
constexpr int pollPeriodMs = 1000;
constexpr std::chrono::milliseconds endRetryInterval{100};

} // namespace

Server::Server(Logger* logger) : logger_(logger) {
    assert(logger != nullptr);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    listenSocket_ = socket;
    if (socket < 0) {
        report(LOG_ERR, "Cannot create socket (%s).", errorText(errno).c_str());
        return;
    }
    if (!bindSocket(socket))
        return;
    if (listen(socket, backlog) != 0) {
        report(LOG_ERR, "Cannot listen at socket (%s).", errorText(errno).c_str());
        return;
    }
    startAcceptThread();
}

bool Server::bindSocket(int socket) {
    const sockaddr_un address = controlSocketAddress();
    // Only the daemon's user and root may connect; the path gets the socket's mode.
    static_cast<void>(fchmod(socket, S_IRUSR | S_IWUSR));
    // A killed daemon leaves its socket file.
    static_cast<void>(unlink(controlSocketPath));
    if (bind(socket, asSocketAddress(address), sizeof address) == 0)
        return true;
    const std::string reason = errorText(errno);
    report(LOG_ERR, "Cannot bind socket to %s (%s).", controlSocketPath, reason.c_str());
    // Other programs match this text, including the newline before the full stop.
    std::printf("Cannot bind socket to %s (%s)\n.", controlSocketPath, reason.c_str());
    std::fflush(stdout);
    return false;
}

void Server::startAcceptThread() {
    std::string failure;
    {
        const Held<Mutex> held(clientsMutex_);
        try {
            acceptThread_ = std::make_unique<std::thread>(&Server::acceptLoop, this).release();
        } catch (const std::exception& error) {
            failure = error.what();
        }
    }
    if (!failure.empty())
        report(LOG_ERR, "Cannot start accept thread (%s).", failure.c_str());
}

void Server::acceptLoop() {
    for (;;) {
        // Read once: the number stays open until this thread has ended. The stop wakes a poll of
        // it, but a poll of -1 would last its full time.
        const int socket = listenSocket_;
        if (socket < 0)
            break;
        pollfd listening{socket, POLLIN, 0};
        const int ready = poll(&listening, 1, pollPeriodMs);
        if (listenSocket_ < 0)
            break;
        if (ready == 1 && !acceptClient(socket)) {
            // Closes it, unless the destructor has taken it. This refuses the clients that wait in
            // the queue, or in connect(), which would otherwise wait for ever.
            const FileDescriptor closing(listenSocket_.exchange(-1));
            break;
        }
    }
    finishAcceptThread();
}

bool Server::acceptClient(int listenSocket) {
    sockaddr_un address;
    socklen_t length = sizeof address;
    const int socket = accept4(listenSocket, asSocketAddress(address), &length, SOCK_CLOEXEC);
    if (socket < 0)
        return false;
    const std::string failure = startClientThread(socket);
    if (!failure.empty())
        report(LOG_ERR, "Cannot serve client (%s).", failure.c_str());
    return true;
}

std::string Server::startClientThread(int socket) {
    // Held until the thread has started: it finds its entry, however soon it ends.
    const Held<Mutex> held(clientsMutex_);
    try {
        const auto entry = clients_.emplace(socket, nullptr).first;
        entry->second = std::make_unique<std::thread>(&Server::handleClient, this, socket);
        return {};
    } catch (const std::exception& error) {
        clients_.erase(socket);
        static_cast<void>(close(socket));
        return error.what();
    }
}

void Server::handleClient(int socket) {
    Connection connection(socket);
    try {
        serveClient(connection, *logger_);
    } catch (const std::exception& error) {
        report(LOG_ERR, "Cannot serve client (%s).", error.what());
    }
    deregister(connection);
}

void Server::deregister(Connection& connection) {
    const int socket = connection.socket();
    const Held<Mutex> held(clientsMutex_);
    connection.close();
    const auto entry = clients_.find(socket);
    if (entry != clients_.end()) {
        entry->second->detach();
        clients_.erase(entry);
    }
}

void Server::finishAcceptThread() {
    // The destructor takes this lock once more before it ends, so nothing here outlives the server.
    const Held<Mutex> held(clientsMutex_);
    {
        const std::unique_ptr<std::thread> self(acceptThread_.load());
        self->detach();
    }
    acceptThread_ = nullptr;
}

Server::~Server() {
    stopAccepting();
    endConnections();
    wakeStreams();
    waitForClients();
}

void Server::stopAccepting() {
    // Taken first and closed last, so that the accept thread never polls a number that belongs to
    // another file.
    const FileDescriptor socket(listenSocket_.exchange(-1));
    if (socket.isOpen())
        static_cast<void>(shutdown(socket.get(), SHUT_RDWR)); // ends the accept thread's poll
    static_cast<void>(unlink(controlSocketPath));
    while (acceptThread_ != nullptr)
        std::this_thread::sleep_for(endRetryInterval);
}

void Server::endConnections() {
    const Held<Mutex> held(clientsMutex_);
    for (const auto& client : clients_)
        static_cast<void>(shutdown(client.first, SHUT_RDWR)); // its thread closes the descriptor
}

void Server::wakeStreams() {
    const Held<Logger> held(*logger_);
    logger_->endStreams();
    logger_->addToCache(0, 0, 0, "");
}

void Server::waitForClients() {
    for (;;) {
        {
            const Held<Mutex> held(clientsMutex_);
            if (clients_.empty())
                return;
        }
        std::this_thread::sleep_for(endRetryInterval);
    }
}

} // namespace qwk
