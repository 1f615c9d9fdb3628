// Measures the daemon's parts and the daemon itself, compares them with plain loops over the same
// work, and prints the tables of docs/performance.md. Runs in the tests' sandbox.

#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <log4cplus/version.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <thread>
#include <unistd.h>

#include "report.h"
#include "support/fileDescriptor.h"
#include "support/paths.h"
#include "support/sandbox.h"

namespace {

std::string processorModel() {
    std::ifstream information("/proc/cpuinfo");
    const std::string key = "model name\t: ";
    for (std::string line; std::getline(information, line);)
        if (line.compare(0, key.size(), key) == 0)
            return line.substr(key.size());
    return "processor";
}

// In microseconds, of a byte that another thread sends back. Each way wakes a sleeping thread.
double roundTrip() {
    constexpr int times = 20000;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("no sockets");
    const qwk::FileDescriptor here(ends[0]), there(ends[1]);
    std::thread echo([&] {
        for (char byte;
             qwk::readSome(there.get(), &byte, 1) == 1 && write(there.get(), &byte, 1) == 1;)
            ;
    });
    const auto start = std::chrono::steady_clock::now();
    int answers = 0;
    for (char byte = 0; answers < times && write(here.get(), &byte, 1) == 1 &&
                        qwk::readSome(here.get(), &byte, 1) == 1;)
        ++answers;
    const std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
    shutdown(here.get(), SHUT_RDWR);
    echo.join();
    if (answers < times)
        throw std::runtime_error("the other thread does not answer");
    return took.count() / times;
}

void printHead() {
    utsname system{};
    uname(&system);
    std::cout
        << "# Performance\n\n"
           "`scripts/bench` writes this document. The times depend on the machine. Figures of "
           "one row come from\none run, in turn or in random order. Most of them are medians of "
           "nine repetitions. The log files and\nthe journal are in memory (tmpfs).\n\n"
           "Machine: "
        << std::thread::hardware_concurrency() << " x " << processorModel() << ", "
        << system.machine << ", Linux " << system.release << ", g++ " << __VERSION__
        << ", log4cplus " << LOG4CPLUS_VERSION_STR
        << ".\nA byte sent to another thread and back takes " << std::fixed << std::setprecision(1)
        << roundTrip()
        << " us. Each transfer to the stand-in chip wakes two\nthreads, so its time follows that "
           "figure. On a board the bus takes the time.\n";
}

void startAfresh() {
    for (const char* folder : {qwk::journalFolderPath, qwk::logFolderPath}) {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder);
    }
}

// As in the daemon: a client that has left is an error of the call.
void blockBrokenPipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

} // namespace

int main(int argc, char** argv) {
    testSupport::restartInSandbox(argv);
    blockBrokenPipe();
    char interleaved[] = "--benchmark_enable_random_interleaving=true";
    char* arguments[] = {argv[0], interleaved, nullptr};
    int count = 2;
    benchmark::Initialize(&count, arguments);
    const std::string only = argc > 1 ? argv[1] : "";
    const std::pair<const char*, void (*)()> groups[] = {
        {"journal", bench::measureJournal}, {"chip", bench::measureChip},
        {"lines", bench::measureLines},     {"delivery", bench::measureDelivery},
        {"daemon", bench::measureDaemon},   {"latency", bench::measureLatency},
        {"faults", bench::measureFaults}};
    try {
        printHead();
        for (const auto& [name, measure] : groups)
            if (only.empty() || only == name) {
                startAfresh();
                measure();
            }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
