#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "main/client.h"
#include "main/daemon.h"
#include "main/serviceStatus.h"

namespace {

// Sockets and files must not get the numbers that messages are printed to.
void occupyStandardDescriptors() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = open("/dev/null", O_RDWR);
    if (descriptor > STDERR_FILENO)
        close(descriptor);
}

// A peer or a reader that has just gone is an error of the call, not the end of the process.
void blockBrokenPipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
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
    blockBrokenPipe();
    if (argc == 1)
        becomeDaemon();
    else if (argc == 2 && std::strcmp(argv[1], "-h") == 0)
        qwk::printUsage();
    else
        beClient(argc, argv);
    return 0;
}
