// The daemon and its client as processes, compared with journalctl.

#include <fstream>
#include <poll.h>
#include <sys/resource.h>

#include "eeprom/framLayout.h"
#include "process.h"
#include "report.h"
#include "support/daemon.h"

namespace bench {

namespace {

using namespace testSupport;

constexpr int entryCount = 12000;
constexpr int firstByteRuns = 51;
constexpr int followedEntries = 41;

std::string memoryField(pid_t process, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, field.size() + 1, field + ":") == 0)
            return line.substr(field.size() + 1);
    return "0";
}

double mebibytes(pid_t process, const std::string& field) {
    return std::stod(memoryField(process, field)) / 1024;
}

double timeToFirstByte(const std::string& path, const std::vector<std::string>& arguments) {
    const Clock::time_point start = Clock::now();
    const PipedProcess process(path, arguments);
    char byte = 0;
    if (qwk::readSome(process.output(), &byte, 1) != 1)
        throw std::runtime_error(path + " prints nothing");
    return microsecondsSince(start);
}

void measureFirstByte() {
    std::vector<double> client;
    std::vector<double> journalctl;
    for (int i = 0; i < firstByteRuns; ++i) {
        client.push_back(timeToFirstByte(buildPath("quillwick"), {"-g", "1000"}));
        journalctl.push_back(timeToFirstByte("/bin/journalctl", {"-n", "10"}));
    }
    const double mine = percentile(client, 50);
    const double other = percentile(journalctl, 50);
    section("First byte", "From the start of the process to the first byte of its output, medians.",
            {"`quillwick -g 1000`", "`journalctl -n 10`", "ratio", "target"});
    row({number(mine / 1000, 2) + " ms", number(other / 1000, 2) + " ms", number(mine / other, 2),
         atMost(mine / other, 1)});
}

// logger(1) sends each entry when the one before has arrived at both ends.
void measureFollowing() {
    const PipedProcess client(buildPath("quillwick"), {"-l", "-g", "1000"});
    readThrough(client.output(), '\n');
    const PipedProcess journalctl("/bin/journalctl", {"-f", "-n", "1"});
    readThrough(journalctl.output(), '\n');
    std::vector<double> times[2];
    for (int i = 0; i < followedEntries; ++i) {
        const Clock::time_point start = Clock::now();
        const ChildProcess logger("/usr/bin/logger", {"-p", "user.err", "an entry"});
        pollfd outputs[2] = {{client.output(), POLLIN, 0}, {journalctl.output(), POLLIN, 0}};
        for (int left = 2; left > 0;) {
            poll(outputs, 2, -1);
            for (int which : {0, 1})
                if (outputs[which].revents != 0) {
                    readThrough(outputs[which].fd, '\n');
                    times[which].push_back(microsecondsSince(start) / 1000);
                    outputs[which] = {-1, 0, 0};
                    --left;
                }
        }
    }
    section("From logger(1) to a reader",
            "The same entries, followed by both at once. journald wakes its readers at most every "
            "250 ms.",
            {"", "median", "99th percentile"});
    for (int which : {0, 1})
        row({which == 0 ? "`quillwick -l -g 1000`" : "`journalctl -f`",
             number(percentile(times[which], 50), 1) + " ms",
             number(percentile(times[which], 99), 1) + " ms"});
}

// The board without a daemon, with a journal that begins with `count` errors.
struct Surroundings {
    explicit Surroundings(int count) {
        std::filesystem::remove_all(qwk::journalFolderPath);
        std::filesystem::create_directory(qwk::journalFolderPath);
        journald = std::make_unique<Journald>();
        chip.setRecording(false);
        for (int i = 0; i < count; ++i) // about 100 bytes, with host, name and process number
            journald->log(3, "bench", std::string(70, 'm'));
        journald->sync();
    }
    void waitForEntries(std::uint32_t count) {
        if (!eventually(300s, [&] {
                return qwk::framLayout::decodeHeader(chip.image().data()).nextId >= count;
            }))
            throw std::runtime_error("the daemon does not read its entries");
    }
    framEmulator::FramChip chip;
    framEmulator::FramDevice device{qwk::eepromDevicePath, chip};
    std::unique_ptr<Journald> journald;
};

void addResidentSize(const std::string& when, Daemon& daemon, const std::string& target = "") {
    const pid_t process = daemon.pid();
    row({"resident size " + when,
         number(mebibytes(process, "VmRSS"), 1) + " MiB: memory of its own " +
             number(mebibytes(process, "RssAnon"), 1) + ", of programs and libraries " +
             number(mebibytes(process, "RssFile"), 1) + ", of the journal " +
             number(mebibytes(process, "RssShmem"), 1),
         target});
}

void measureEntries() {
    Surroundings surroundings(entryCount);
    const ProcessorTime before = processorTime(RUSAGE_CHILDREN);
    Daemon daemon;
    surroundings.waitForEntries(entryCount);
    addResidentSize("after 12,000 entries", daemon);
    daemon.end();
    const ProcessorTime spent = processorTime(RUSAGE_CHILDREN) - before;
    row({"processor time per entry",
         number(spent.total() / entryCount, 1) + " us: user " + number(spent.user / entryCount, 1) +
             ", system " + number(spent.system / entryCount, 1),
         ""});
}

} // namespace

void measureDaemon() {
    std::filesystem::remove(qwk::configurationPath);
    section("The daemon as a process",
            "12,000 entries of about 100 bytes go from the journal to the chip and, in batches, to "
            "the log file. At rest\nit has read a journal of twenty entries.",
            {"", "", "target"});
    measureEntries();
    constexpr std::uint32_t few = 20;
    Surroundings surroundings(few);
    Daemon daemon;
    surroundings.waitForEntries(few);
    addResidentSize("at rest", daemon, atMost(mebibytes(daemon.pid(), "VmRSS"), 6, 0));
    measureFirstByte();
    measureFollowing();
}

} // namespace bench
