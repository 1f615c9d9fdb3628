#pragma once

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "framEmulator/framChip.h"
#include "framEmulator/framDevice.h"
#include "logger/sequenceNumber.h"
#include "support/childProcess.h"
#include "support/controlSocket.h"
#include "support/journalFixture.h"
#include "support/paths.h"
#include "support/sandbox.h"
#include "support/syslogCapture.h"

namespace testSupport {

using namespace std::chrono_literals;

// A socket connected to the daemon; empty if no daemon listens.
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

// Everything that arrives until the other side closes.
inline std::string receiveAll(const Descriptor& socket) {
    std::string all;
    char piece[65536];
    for (ssize_t got; (got = recv(socket.get(), piece, sizeof piece, 0)) > 0;)
        all.append(piece, static_cast<std::size_t>(got));
    return all;
}

// The daemon as a child process. The constructor returns when it serves clients.
class Daemon : public ChildProcess {
public:
    // A shell runs `before` first, such as "ulimit -n 30; exec".
    explicit Daemon(const std::string& before = "exec")
        : ChildProcess("/bin/bash", {"-c", before + ' ' + buildPath("quillwick")}) {
        if (!eventually(30s, [] { return connectToDaemon().isOpen(); }))
            throw std::runtime_error("the daemon serves no clients");
    }
    // Its exit status, as from wait().
    std::optional<int> end(int signal = SIGTERM) {
        kill(signal);
        return wait(30s);
    }
};

// A daemon that gets a wake-up descriptor as from the service manager.
inline std::unique_ptr<Daemon> startWithWakeUps(const Descriptor& wakeUps) {
    const Descriptor inherited(fcntl(wakeUps.get(), F_DUPFD, 10));
    const std::string number = std::to_string(inherited.get());
    return std::make_unique<Daemon>("exec 3<&" + number + ' ' + number +
                                    "<&-; LISTEN_PID=$$ LISTEN_FDS=1 exec");
}

// The output of the client for these arguments.
inline std::string client(const std::vector<std::string>& arguments) {
    return run(buildPath("quillwick"), arguments).output;
}

// The messages of the lines numbered from 0 on, up to a number that is missing.
inline std::vector<std::string> messagesOf(const std::string& log) {
    std::vector<std::string> messages;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);)
        if (line.find(qwk::sequenceTag(static_cast<std::uint32_t>(messages.size()))) == 0)
            messages.push_back(line.substr(line.find("]: ") + 3));
    return messages;
}

// The board with everything but the daemon: chip, journal, log folder.
class System : public testing::Test {
protected:
    std::string logFile() {
        return std::filesystem::exists(qwk::logFilePath) ? readFile(qwk::logFilePath) : "";
    }
    // Each message as an error of one program, in the journal's files when this returns.
    void log(const std::vector<std::string>& messages) {
        for (const std::string& text : messages)
            journald.log(3, "test", text);
        journald.sync();
    }
    // Waits until the daemon's newest text, or its log file, contains the text.
    bool arrives(const std::string& text) {
        const auto isThere = [&] {
            return (client({"-g", "100000"}) + logFile()).find(text) != std::string::npos;
        };
        return eventually(30s, isThere);
    }
    void store(const std::string& text) {
        log({text});
        EXPECT_TRUE(arrives(text));
    }
    // Adds as many texts, each once, and does not wait for the journal.
    void logMore(int count) {
        for (; count > 0; --count) {
            texts.push_back("number " + std::to_string(texts.size()));
            journald.log(3, "test", texts.back());
        }
    }
    // Every text once and in order, in the lines of the flushed log.
    void expectAll() {
        ASSERT_TRUE(arrives(texts.back()));
        client({"-f"});
        EXPECT_EQ(messagesOf(logFile()), texts);
    }

    std::vector<std::string> texts;
    SyslogCapture syslog; // keeps the daemon's own messages out of the journal
    framEmulator::FramChip chip;
    std::unique_ptr<framEmulator::FramDevice> device =
        std::make_unique<framEmulator::FramDevice>(qwk::eepromDevicePath, chip);
    Journald journald;
};

} // namespace testSupport
