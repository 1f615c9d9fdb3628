#include <cstdio>
#include <cstring>

#include "main/client.h"
#include "main/daemon.h"
#include "main/serviceStatus.h"
#include "main/singleInstance.h"
#include "support/fileDescriptor.h"
#include "support/signals.h"

namespace {

void becomeDaemon() {
    if (!qwk::isDaemonRunning())
        qwk::runDaemon();
    std::puts("Server already running.");
    qwk::ServiceStatus::giveWay();
}

void beClient(int argc, char** argv) {
    if (qwk::sendRequest(qwk::requestLine(argc, argv), stdout) != 0)
        std::puts("Cannot connect to server.");
}

} // namespace

int main(int argc, char** argv) {
    qwk::occupyStandardDescriptors();
    qwk::blockBrokenPipe();
    if (argc == 1)
        becomeDaemon();
    else if (argc == 2 && std::strcmp(argv[1], "-h") == 0)
        qwk::printUsage();
    else
        beClient(argc, argv);
    return 0;
}
