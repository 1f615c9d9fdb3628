#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "support/threadSafety.h"

namespace qwk {

class Connection;
class Logger;

/// The control socket: accepts clients on one thread and serves each on a thread of its own. All
/// are detached; the registry and acceptThread_ show the destructor when they have ended.
class Server {
public:
    /// Binds the control socket and starts to accept. Reports a failure; the server is inert then.
    /// `logger` is not owned and outlives the server.
    explicit Server(Logger* logger);
    /// Ends every connection and waits until every thread has ended.
    virtual ~Server();

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

private:
    // Set-up; failures are reported.
    bool bindSocket(int socket);
    void startAcceptThread();

    /// The accept thread.
    void acceptLoop();
    /// False when no further client can be accepted.
    bool acceptClient(int listenSocket);
    /// Returns an empty text, or the reason of a failure; the socket is closed then.
    std::string startClientThread(int socket);
    void finishAcceptThread();

    /// A client thread: serves one request, then closes and deregisters `socket`.
    void handleClient(int socket);
    /// Closes the connection and removes its entry, so that its number is never both free and
    /// registered.
    void deregister(Connection& connection);

    // The steps of the destructor.
    void stopAccepting();
    void endConnections();
    void wakeStreams();
    void waitForClients();

    /// The listening descriptor; -1 when there is none. The thread that sets -1 closes it: the
    /// destructor's, or the accept thread when it cannot accept any more.
    std::atomic<int> listenSocket_{-1};
    /// Null while no accept thread runs. Set with clientsMutex_ held, so that the thread cannot
    /// clear it before. The accept thread owns and deletes it.
    std::atomic<std::thread*> acceptThread_{nullptr};
    /// The threads that serve clients, by descriptor.
    std::map<int, std::unique_ptr<std::thread>> clients_ QWK_GUARDED_BY(clientsMutex_);
    /// A leaf lock: its holder does not wait and takes no other lock.
    Mutex clientsMutex_;
    Logger* const logger_;
};

} // namespace qwk
