#include "main/daemon.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "eeprom/eeprom.h"
#include "journal/journal.h"
#include "journal/wakeUps.h"
#include "logger/logger.h"
#include "main/serviceStatus.h"
#include "server/server.h"
#include "support/diagnostics.h"
#include "support/fileDescriptor.h"
#include "support/signals.h"
#include "support/stopRequest.h"

namespace qwk {

DaemonObjects g_daemon;

namespace {

struct HandledSignal {
    int number;
    const char* name;
};

constexpr HandledSignal handledSignals[] = {{SIGHUP, "SIGHUP"},
                                            {SIGINT, "SIGINT"},
                                            {SIGQUIT, "SIGQUIT"},
                                            {SIGABRT, "SIGABRT"},
                                            {SIGTERM, "SIGTERM"}};

constexpr int firstOpenTimeoutMs = 10000;
constexpr int withoutLimit = -1;
constexpr std::chrono::milliseconds journalRetryInterval{100};

sigset_t handledSignalSet() {
    sigset_t set;
    sigemptyset(&set);
    for (const HandledSignal& handled : handledSignals)
        sigaddset(&set, handled.number);
    return set;
}

// All threads inherit this, so that only the main thread handles signals.
void blockHandledSignals() {
    const sigset_t set = handledSignalSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void createObjects(std::vector<FileDescriptor> wakeUps) {
    g_daemon.logger = new Logger;
    g_daemon.journal = new Journal(g_daemon.logger->logLevel(), std::move(wakeUps));
    g_daemon.server = new Server(g_daemon.logger);
}

// A signal that arrived during start-up was blocked and is handled here.
void takeSignals() {
    for (const HandledSignal& handled : handledSignals)
        std::signal(handled.number, onSignal);
    const sigset_t set = handledSignalSet();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

// Opens the FRAM cache. If the device is missing, warns after the first time-out and then waits
// without limit. Returns null only when a stop was requested.
std::unique_ptr<Eeprom> openEeprom(int& timeoutMs, ServiceStatus& status) {
    const auto deviceMissing = [&status] { status.waitForDevice(); };
    std::unique_ptr<Eeprom> eeprom(Eeprom::open(g_daemon.logger, timeoutMs, deviceMissing));
    if (!eeprom && !stopRequest().isRequested()) {
        // Other programs match this text, including its spelling.
        report(LOG_WARNING, "Openening i2c bus for EEPROM timed out.");
        timeoutMs = withoutLimit;
        eeprom.reset(Eeprom::open(g_daemon.logger, timeoutMs, deviceMissing));
    }
    return eeprom;
}

// Moves entries from the journal to the FRAM cache until a stop is requested.
void mainLoop(ServiceStatus& status) {
    std::int32_t priority = 0;
    std::uint64_t timestamp = 0;
    std::string text;
    int openTimeoutMs = firstOpenTimeoutMs;
    while (!stopRequest().isRequested()) {
        const int result = g_daemon.journal->readEntry(priority, timestamp, text);
        if (result < 0)
            stopRequest().sleepFor(journalRetryInterval);
        if (result != 1)
            continue;
        if (const auto eeprom = openEeprom(openTimeoutMs, status)) {
            eeprom->append(priority, timestamp, text);
            if (eeprom->hasStored())
                status.store();
            else
                status.failToStore();
        }
    }
}

void reportSignal(int number) {
    for (const HandledSignal& handled : handledSignals)
        if (handled.number == number)
            // The newline is part of the text, although syslog ends each message itself.
            report(LOG_DEBUG, "Received signal %s.\n", handled.name);
}

// In the reverse of the order of creation, so that no object outlives one that it uses.
[[noreturn]] void tearDown() {
    // A further signal changes nothing, and must not use the objects that exit() destroys.
    blockHandledSignals();
    reportSignal(stopRequest().signal());
    delete g_daemon.server;
    delete g_daemon.journal;
    delete g_daemon.logger;
    std::exit(0);
}

} // namespace

void runDaemon() {
    blockHandledSignals();
    blockBrokenPipe();
    std::vector<FileDescriptor> wakeUps = takeHandedOverDescriptors();
    static_cast<void>(stopRequest()); // created before the handler can use it
    ServiceStatus status;
    createObjects(std::move(wakeUps));
    takeSignals();
    g_daemon.journal->observeFolder([&status](bool isMissing) {
        if (isMissing)
            status.waitForJournal();
        else
            status.store();
    });
    status.ready();
    mainLoop(status);
    status.stopping();
    tearDown();
}

void onSignal(int signal) {
    stopRequest().request(signal);
}

} // namespace qwk
