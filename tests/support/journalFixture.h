#pragma once

#include <algorithm>
#include <filesystem>
#include <future>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

#include "support/childProcess.h"
#include "support/paths.h"

namespace testSupport {

/// A field with any bytes, for the export format and for datagrams to the journal daemon.
inline std::string journalField(const std::string& name, const std::string& value) {
    std::string text = name + "\n";
    for (unsigned shift = 0; shift < 64; shift += 8)
        text += static_cast<char>(std::uint64_t{value.size()} >> shift & 0xFFU);
    return text + value + "\n";
}

/// Throws std::runtime_error when the program fails.
inline void mustSucceed(const std::string& path, const std::vector<std::string>& args,
                        const std::string& input = {}) {
    const RunResult result = run(path, args, input);
    if (result.status != 0)
        throw std::runtime_error(path + " failed: " + result.output);
}

/// Adds a file with these entries to the runtime journal; each is "NAME=value;NAME=value" with any
/// bytes but semicolons. The first has the time 1700000000000001 in microseconds, each next one is
/// one later. Adds a field _BOOT_ID to each.
inline void writeJournal(const std::vector<std::string>& entries) {
    std::string boot = readFile("/proc/sys/kernel/random/boot_id");
    boot.erase(std::remove(boot.begin(), boot.end(), '-'), boot.end());
    std::string text;
    for (std::size_t i = 1; i <= entries.size(); ++i) {
        // The journal sorts the entries of one boot by the monotonic time.
        text += "__REALTIME_TIMESTAMP=" + std::to_string(1700000000000000 + i) +
                "\n__MONOTONIC_TIMESTAMP=" + std::to_string(i) + "\n_BOOT_ID=" + boot;
        std::istringstream fields(entries[i - 1]);
        for (std::string field; std::getline(fields, field, ';');) {
            const std::size_t equals = field.find('=');
            text += journalField(field.substr(0, equals), field.substr(equals + 1));
        }
        text += "\n";
    }
    const std::filesystem::path folder =
        qwk::journalFolderPath + ("/" + readFile("/etc/machine-id").substr(0, 32));
    std::filesystem::create_directories(folder);
    mustSucceed("/lib/systemd/systemd-journal-remote",
                {"--split-mode=none", "-o", folder / "written.journal", "-"}, text);
}

/// The socket to which the journal daemon forwards messages, with a queue of the same length as on
/// a system that systemd has booted.
inline Descriptor makeForwardingSocket() {
    // The network namespace of the socket determines the length.
    const auto make = [] {
        if (unshare(CLONE_NEWNET) != 0)
            throw std::system_error(errno, std::generic_category(), "network namespace");
        writeFile("/proc/sys/net/unix/max_dgram_qlen", "512\n");
        return Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    };
    Descriptor made = std::async(std::launch::async, make).get();
    const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/syslog"};
    unlink(address.sun_path);
    if (bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), address.sun_path);
    return made;
}

/// The real journal daemon, with its sockets, for the runtime journal of the sandbox. It stores
/// nothing elsewhere, limits no rate and reads kernel messages only on request. It forwards
/// messages to a socket at /run/systemd/journal/syslog if there is one. The journal remains after
/// it ends. One at a time.
class Journald {
public:
    /// Returns when the daemon accepts entries. Throws std::runtime_error.
    explicit Journald(bool readsKernelLog = false)
        : daemon_("/bin/sh", {"-c", configure + (readsKernelLog ? "yes" : "no") + start}) {
        const auto answers = [] { return run("/bin/journalctl", {"--sync"}).status == 0; };
        const sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
        if (!eventually(std::chrono::seconds(20), answers) || // with all its sockets there
            connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
                0)
            throw std::runtime_error("journald accepts no entries: " + daemon_.output());
        std::error_code isTaken; // by the test's own socket, which has precedence
        std::filesystem::create_symlink("/run/systemd/journal/dev-log", "/dev/log", isTaken);
    }
    ~Journald() {
        daemon_.kill(SIGTERM);
        daemon_.wait(std::chrono::seconds(20));
    }

    /// Waits while the daemon's queue is full. The daemon adds fields about the sender and its own
    /// time stamp.
    void log(int priority, const std::string& identifier, const std::string& message) {
        const std::string datagram =
            "PRIORITY=" + std::to_string(priority) + "\nSYSLOG_IDENTIFIER=" + identifier +
            "\nSYSLOG_PID=" + std::to_string(getpid()) + "\n" + journalField("MESSAGE", message);
        if (qwk::retryOnInterrupt([&] {
                return send(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
            }) < 0)
            throw std::system_error(errno, std::generic_category(), "sending to the journal");
    }
    /// Returns when all that was sent before is in the journal's files.
    void sync() { mustSucceed("/bin/journalctl", {"--sync"}); }
    /// Returns when the active file is archived and a new one begun.
    void rotate() { mustSucceed("/bin/journalctl", {"--rotate"}); }

private:
    // Named to be read last, whatever else configures the machine's own journal.
    static inline const std::string configure =
        "mkdir -p /run/systemd/journald.conf.d; echo '[Journal]\nStorage=volatile\n"
        "RateLimitIntervalSec=0\nRateLimitBurst=0\nForwardToSyslog=yes\nForwardToKMsg=no\n"
        "ForwardToConsole=no\nForwardToWall=no\nAudit=no\nReadKMsg=";
    static constexpr const char* start =
        "' >/run/systemd/journald.conf.d/zzz.conf;"
        "SYSTEMD_LOG_TARGET=console exec /lib/systemd/systemd-journald";

    ChildProcess daemon_;
    const Descriptor socket_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

} // namespace testSupport
