#include "support/journalFixture.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/sandbox.h"

namespace fs = std::filesystem;

namespace testSupport {
namespace {

constexpr std::chrono::seconds daemonLimit(20);
const char nativeSocket[] = "/run/systemd/journal/socket";
const char syslogSocket[] = "/run/systemd/journal/dev-log";

// One form serves both for the export format and for datagrams to the journal daemon.
void appendField(std::string& text, const std::string& name, const std::string& value) {
    if (value.find_first_of(std::string("\n\0", 2)) == std::string::npos) {
        text += name + "=" + value + "\n";
        return;
    }
    text += name + "\n";
    for (unsigned shift = 0; shift < 64; shift += 8)
        text += static_cast<char>(std::uint64_t{value.size()} >> shift & 0xFFU);
    text += value + "\n";
}

std::string bootId() {
    std::string id = readFile("/proc/sys/kernel/random/boot_id");
    id.erase(std::remove_if(id.begin(), id.end(), [](char c) { return c == '-' || c == '\n'; }),
             id.end());
    return id;
}

void mustSucceed(const std::string& path, const std::vector<std::string>& args,
                 const std::string& input = {}) {
    const RunResult result = run(path, args, input);
    if (result.status != 0)
        throw std::runtime_error(path + " failed: " + result.output);
}

} // namespace

void writeJournal(const std::vector<JournalEntry>& entries) {
    static int fileCount = 0;
    // The journal sorts the entries of one boot by this stamp, which a real one's exceeds.
    static std::uint64_t monotonic = 0;
    const std::string boot = bootId();
    std::string text;
    for (const JournalEntry& entry : entries) {
        appendField(text, "__REALTIME_TIMESTAMP", std::to_string(entry.realtime));
        appendField(text, "__MONOTONIC_TIMESTAMP", std::to_string(++monotonic));
        appendField(text, "_BOOT_ID", boot);
        for (const auto& [name, value] : entry.fields)
            appendField(text, name, value);
        text += "\n";
    }
    const fs::path directory = "/run/log/journal/" + readFile("/etc/machine-id").substr(0, 32);
    fs::create_directories(directory);
    const fs::path file = directory / ("written" + std::to_string(++fileCount) + ".journal");
    mustSucceed("/lib/systemd/systemd-journal-remote",
                {"--split-mode=none", "-o", file.string(), "-"}, text);
}

Journald::Journald(const std::string& configuration)
    : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    // Named to be read last, whatever else configures the machine's own journal.
    fs::create_directories("/run/systemd/journald.conf.d");
    writeFile("/run/systemd/journald.conf.d/zzz.conf",
              "[Journal]\nStorage=volatile\nRateLimitIntervalSec=0\nRateLimitBurst=0\n"
              "ForwardToSyslog=no\nForwardToKMsg=no\nForwardToConsole=no\nForwardToWall=no\n"
              "ReadKMsg=no\nAudit=no\n" +
                  configuration + "\n");
    daemon_ =
        std::make_unique<ChildProcess>("/lib/systemd/systemd-journald", std::vector<std::string>{},
                                       ChildOptions{{}, {"SYSTEMD_LOG_TARGET=console"}, true});

    // It answers only when all its sockets are there.
    const bool ready =
        eventually(daemonLimit, [] { return run("/bin/journalctl", {"--sync"}).status == 0; });
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::copy(std::begin(nativeSocket), std::end(nativeSocket), address.sun_path);
    if (!ready || ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address),
                            sizeof address) != 0) {
        throw std::runtime_error("the journal daemon does not accept entries: " +
                                 daemon_->output());
    }
    std::error_code isTaken; // by a socket of the test's own, which goes first
    fs::create_symlink(syslogSocket, "/dev/log", isTaken);
}

Journald::~Journald() {
    daemon_->kill(SIGTERM);
    daemon_->wait(daemonLimit);
    std::error_code ignored;
    if (fs::is_symlink("/dev/log", ignored))
        fs::remove("/dev/log", ignored);
}

void Journald::log(int priority, const std::string& identifier, const std::string& message) {
    send({{"PRIORITY", std::to_string(priority)},
          {"SYSLOG_IDENTIFIER", identifier},
          {"SYSLOG_PID", std::to_string(::getpid())},
          {"MESSAGE", message}});
}

void Journald::send(const JournalFields& fields) {
    std::string datagram;
    for (const auto& [name, value] : fields)
        appendField(datagram, name, value);
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
