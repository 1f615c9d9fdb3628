#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <getopt.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/fileDescriptor.h"
#include "support/stopRequest.h"
#include "tail/tail.h"

namespace {

constexpr int done = 0;
constexpr int failed = 1;
constexpr int wrongUse = 2;

constexpr char usage[] =
    "Usage: quillwick-tail --cursor-file FILE [--follow] [--since NUMBER] [--events]\n"
    "\n"
    "Prints the log entries after the last one that FILE names, and records in FILE how far it\n"
    "came.\n"
    "\n"
    "       --cursor-file FILE  Where to go on; made when it is missing.\n"
    "       --follow            Go on with new entries as they come.\n"
    "       --since NUMBER      Begin with this entry when there is no cursor; NUMBER is\n"
    "                           hexadecimal as in the log.\n"
    "       --events            Tell gaps and the like as JSON lines on standard error.\n"
    "       --help              Print this message.\n";

bool parseNumber(const char* text, std::optional<std::uint32_t>& number) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 16);
    if (end == text || *end != '\0' || *text == '-' || errno != 0 || value > UINT32_MAX)
        return false;
    number = static_cast<std::uint32_t>(value);
    return true;
}

// False on wrong use.
bool parseOptions(int argc, char** argv, qwk::tail::Options& options) {
    enum { cursorFile = 1, follow, since, events, help };
    const option known[] = {{"cursor-file", required_argument, nullptr, cursorFile},
                            {"follow", no_argument, nullptr, follow},
                            {"since", required_argument, nullptr, since},
                            {"events", no_argument, nullptr, events},
                            {"help", no_argument, nullptr, help},
                            {nullptr, 0, nullptr, 0}};
    bool good = true;
    for (int found; (found = getopt_long(argc, argv, "", known, nullptr)) != -1;)
        switch (found) {
        case cursorFile:
            options.cursorFile = optarg;
            break;
        case follow:
            options.follow = true;
            break;
        case since:
            good &= parseNumber(optarg, options.since);
            break;
        case events:
            options.jsonEvents = true;
            break;
        case help:
            std::fputs(usage, stdout);
            std::exit(done);
        default:
            good = false;
        }
    return good && optind == argc && !options.cursorFile.empty();
}

// After a long pause all of the log files are open together.
void allowManyFiles() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    static_cast<void>(setrlimit(RLIMIT_NOFILE, &limit)); // a unit may forbid it, and sets its own
}

void requestStop(int signal) {
    qwk::stopRequest().request(signal);
}

void takeSignals() {
    static_cast<void>(qwk::stopRequest()); // creates it before the handler can use it
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
        std::signal(number, requestStop);
    std::signal(SIGPIPE, SIG_IGN);
}

} // namespace

int main(int argc, char** argv) {
    if (fcntl(STDOUT_FILENO, F_GETFD) < 0)
        return wrongUse; // the cursor would count entries that no one received
    qwk::occupyStandardDescriptors();
    qwk::tail::Options options;
    if (!parseOptions(argc, argv, options)) {
        std::fputs(usage, stderr);
        return wrongUse;
    }
    takeSignals();
    allowManyFiles();
    const qwk::tail::Events events(options.jsonEvents);
    std::optional<qwk::tail::Tail> tail;
    try {
        tail.emplace(options, events);
    } catch (const std::exception& error) {
        events.failure(error.what());
        return wrongUse;
    }
    try {
        return tail->run() ? done : failed;
    } catch (const std::exception& error) {
        events.failure(error.what());
        return failed;
    }
}
