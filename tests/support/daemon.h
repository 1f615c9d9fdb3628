#pragma once

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "framEmulator/framChip.h"
#include "framEmulator/framDevice.h"
#include "support/childProcess.h"
#include "support/controlSocket.h"
#include "support/journalFixture.h"
#include "support/paths.h"
#include "support/sandbox.h"
#include "support/syslogCapture.h"

namespace testSupport {

using namespace std::chrono_literals;

// A socket connected to the daemon; -1 in it when nobody listens.
inline Descriptor connectToDaemon() {
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = qwk::controlSocketAddress();
    if (connect(socket.get(), qwk::asSocketAddress(address), sizeof address) != 0)
        return Descriptor();
    return socket;
}

// Connects and sends a request line, with its zero byte.
inline Descriptor request(const std::string& line) {
    Descriptor socket = connectToDaemon();
    if (send(socket.get(), line.c_str(), line.size() + 1, MSG_NOSIGNAL) < 0)
        return Descriptor();
    return socket;
}

// All that arrives until the other side closes.
inline std::string receiveAll(const Descriptor& socket) {
    std::string all;
    char piece[65536];
    for (ssize_t got; (got = recv(socket.get(), piece, sizeof piece, 0)) > 0;)
        all.append(piece, static_cast<std::size_t>(got));
    return all;
}

// The daemon as a child process. The constructor returns when it serves clients.
class Daemon {
public:
    Daemon() : process_(buildPath("quillwick"), {}) { awaitServer(); }
    // With a wake-up descriptor, handed over as the service manager does it.
    explicit Daemon(const Descriptor& wakeUps)
        : inherited_(fcntl(wakeUps.get(), F_DUPFD, 10)),
          process_("/bin/bash", {"-c", "LISTEN_PID=$$ LISTEN_FDS=1 exec " + buildPath("quillwick") +
                                           " 3<&" + std::to_string(inherited_.get()) + ' ' +
                                           std::to_string(inherited_.get()) + "<&-"}) {
        inherited_.reset();
        awaitServer();
    }
    ChildProcess& process() { return process_; }
    // Its exit status, as from ChildProcess::wait().
    std::optional<int> end(int signal = SIGTERM) {
        process_.kill(signal);
        return process_.wait(30s);
    }

private:
    static void awaitServer() {
        if (!eventually(30s, [] { return connectToDaemon().get() >= 0; }))
            throw std::runtime_error("the daemon serves no clients");
    }

    Descriptor inherited_;
    ChildProcess process_;
};

// What the client prints for these arguments.
inline std::string client(const std::vector<std::string>& arguments) {
    return run(buildPath("quillwick"), arguments).output;
}

// The board with everything but the daemon: chip, journal, log folder.
class System : public testing::Test {
protected:
    // What an earlier test of the same program left is not there.
    System() {
        for (const char* folder : {"/run/log/journal", "/var/logperm"}) {
            std::filesystem::remove_all(folder);
            std::filesystem::create_directories(folder);
        }
        journald = std::make_unique<Journald>();
    }
    std::string logFile() {
        return std::filesystem::exists(qwk::logFilePath) ? readFile(qwk::logFilePath) : "";
    }
    // Each text as an error of one program, in the journal's files when this returns.
    void log(const std::vector<std::string>& texts) {
        for (const std::string& text : texts)
            journald->log(3, "test", text);
        journald->sync();
    }
    // True once the daemon's newest text, or its log file, holds the text.
    bool arrives(const std::string& text) {
        return eventually(
            30s,
            [&] {
                return (client({"-g", "100000"}) + logFile()).find(text) != std::string::npos;
            });
    }

    SyslogCapture syslog; // keeps the daemon's own messages out of the journal
    framEmulator::FramChip chip;
    std::unique_ptr<framEmulator::FramDevice> device =
        std::make_unique<framEmulator::FramDevice>("/dev/i2c-2", chip);
    std::unique_ptr<Journald> journald;
};

} // namespace testSupport
