#pragma once

namespace qwk {

class Journal;
class Logger;
class Server;

/// The daemon's long-lived objects. They are created in the order logger, journal, server, each set
/// once, and deleted by the teardown in the reverse order.
struct DaemonObjects {
    Logger* logger;
    Server* server;
    Journal* journal;
};

extern DaemonObjects g_daemon;

/// Runs the daemon on the calling thread, which becomes its main thread. Ends the process with
/// status 0 after a handled signal.
[[noreturn]] void runDaemon();

/// The handler of the signals that end the daemon: only requests the stop.
void onSignal(int signal);

} // namespace qwk
