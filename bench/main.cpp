// Measures the daemon's parts and the daemon itself, compares them with plain loops over the same
// work, and prints the tables of docs/performance.md. Runs in the tests' sandbox.

#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <log4cplus/version.h>
#include <sys/utsname.h>
#include <thread>

#include "report.h"
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
        << ", log4cplus " << LOG4CPLUS_VERSION_STR << ".\n";
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
