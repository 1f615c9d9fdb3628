#include "support/journalFixture.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <future>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/sandbox.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace testSupport {
namespace {

constexpr std::chrono::seconds daemonLimit(20);

// The form for any bytes, in the export format and in datagrams to the journal daemon.
void appendField(std::string& text, const std::string& name, const std::string& value) {
    text += name + "\n";
    for (unsigned shift = 0; shift < 64; shift += 8)
        text += static_cast<char>(std::uint64_t{value.size()} >> shift & 0xFFU);
    text += value + "\n";
}

void mustSucceed(const std::string& path, const std::vector<std::string>& args,
                 const std::string& input = {}) {
    const RunResult result = run(path, args, input);
    if (result.status != 0)
        throw std::runtime_error(path + " failed: " + result.output);
}

} // namespace

void writeJournal(const std::vector<std::string>& entries) {
    std::string boot = readFile("/proc/sys/kernel/random/boot_id");
    boot.erase(std::remove(boot.begin(), boot.end(), '-'), boot.end());
    std::string text;
    for (std::size_t i = 1; i <= entries.size(); ++i) {
        // The journal sorts the entries of one boot by the second stamp.
        text += "__REALTIME_TIMESTAMP=" + std::to_string(1700000000000000 + i) +
                "\n__MONOTONIC_TIMESTAMP=" + std::to_string(i) + "\n_BOOT_ID=" + boot;
        std::istringstream fields(entries[i - 1]);
        for (std::string field; std::getline(fields, field, ';');) {
            const std::size_t equals = field.find('=');
            appendField(text, field.substr(0, equals), field.substr(equals + 1));
        }
        text += "\n";
    }
    const fs::path directory = "/run/log/journal/" + readFile("/etc/machine-id").substr(0, 32);
    fs::create_directories(directory);
    mustSucceed("/lib/systemd/systemd-journal-remote",
                {"--split-mode=none", "-o", directory / "written.journal", "-"}, text);
}

Descriptor makeForwardingSocket() {
    // The length is that of the network namespace in which the socket was made.
    const auto make = [] {
        if (::unshare(CLONE_NEWNET) != 0)
            throw std::system_error(errno, std::generic_category(), "network namespace");
        writeFile("/proc/sys/net/unix/max_dgram_qlen", "512\n");
        return Descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    };
    Descriptor made = std::async(std::launch::async, make).get();
    const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/syslog"};
    ::unlink(address.sun_path);
    if (::bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), address.sun_path);
    return made;
}

Journald::Journald(bool readsKernelLog) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    // Named to be read last, whatever else configures the machine's own journal.
    fs::create_directories("/run/systemd/journald.conf.d");
    writeFile("/run/systemd/journald.conf.d/zzz.conf",
              "[Journal]\nStorage=volatile\nRateLimitIntervalSec=0\nRateLimitBurst=0\n"
              "ForwardToSyslog=yes\nForwardToKMsg=no\nForwardToConsole=no\nForwardToWall=no\n"
              "Audit=no\nReadKMsg="s +
                  (readsKernelLog ? "yes\n" : "no\n"));
    daemon_ = std::make_unique<ChildProcess>(
        "/usr/bin/env",
        std::vector<std::string>{"SYSTEMD_LOG_TARGET=console", "/lib/systemd/systemd-journald"});

    // It answers only when all its sockets are there.
    const bool ready =
        eventually(daemonLimit, [] { return run("/bin/journalctl", {"--sync"}).status == 0; });
    const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
    if (!ready || ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address),
                            sizeof address) != 0) {
        throw std::runtime_error("the journal daemon does not accept entries: " +
                                 daemon_->output());
    }
    std::error_code isTaken; // by a socket of the test's own, which goes first
    fs::create_symlink("/run/systemd/journal/dev-log", "/dev/log", isTaken);
}

Journald::~Journald() {
    daemon_->kill(SIGTERM);
    daemon_->wait(daemonLimit);
    std::error_code ignored;
    if (fs::is_symlink("/dev/log", ignored))
        fs::remove("/dev/log", ignored);
}

void Journald::log(int priority, const std::string& identifier, const std::string& message) {
    std::string datagram = "PRIORITY=" + std::to_string(priority) +
                           "\nSYSLOG_IDENTIFIER=" + identifier +
                           "\nSYSLOG_PID=" + std::to_string(::getpid()) + "\n";
    appendField(datagram, "MESSAGE", message);
    while (::send(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL) < 0)
        if (errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "sending to the journal");
}

void Journald::sync() {
    mustSucceed("/bin/journalctl", {"--sync"});
}

void Journald::rotate() {
    mustSucceed("/bin/journalctl", {"--rotate"});
}

} // namespace testSupport
