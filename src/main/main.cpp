#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "main/client.h"
#include "main/daemon.h"
#include "main/serviceStatus.h"
#include "main/singleInstance.h"
#include "support/signals.h"

namespace {

// Sockets and files must not get the numbers of the standard streams.
void occupyStandardDescriptors() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = open("/dev/null", O_RDWR);
    if (descriptor > STDERR_FILENO)
        close(descriptor);
}

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
    occupyStandardDescriptors();
    qwk::blockBrokenPipe();
    if (argc == 1)
        becomeDaemon();
    else if (argc == 2 && std::strcmp(argv[1], "-h") == 0)
        qwk::printUsage();
    else
        beClient(argc, argv);
    return 0;
}
