// The daemon with a broken chip and a real journald: how quiet it is, and whether it recovers by
// itself.

#include <fstream>
#include <sstream>
#include <thread>
#include <unistd.h>

#include "process.h"
#include "report.h"
#include "support/daemon.h"

namespace bench {

namespace {

using namespace testSupport;

constexpr std::chrono::seconds settling{60};
constexpr std::chrono::seconds watched{30};

// Processor time of a running process in seconds.
double processorSeconds(pid_t process) {
    std::string stat = readFile("/proc/" + std::to_string(process) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skipped;
    for (int field = 3; field < 14; ++field)
        fields >> skipped;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double journalLines() {
    const std::string text =
        run("/bin/journalctl", {"-q", "-t", "quillwick", "-o", "cat", "--no-pager"}).output;
    return static_cast<double>(std::count(text.begin(), text.end(), '\n'));
}

bool isDelivered(const std::string& text) {
    return eventually(
        5s,
        [&] {
            return client({"-g", "4000000"}).find(text) != std::string::npos;
        });
}

void breakChip(const std::string& state,
               const std::function<void(framEmulator::FramChip&)>& fault) {
    std::filesystem::remove_all("/run/log/journal");
    std::filesystem::create_directory("/run/log/journal");
    Journald journald;
    framEmulator::FramChip chip;
    chip.setRecording(false);
    framEmulator::FramDevice device(qwk::eepromDevicePath, chip);
    Daemon daemon;
    const pid_t process = daemon.pid();
    const auto log = [&](const std::string& text) {
        journald.log(3, "bench", text);
        journald.sync();
    };
    log("before the fault");
    isDelivered("before the fault");
    fault(chip);
    log("begins the fault");
    const Clock::time_point start = Clock::now();
    std::this_thread::sleep_until(start + settling);
    const double burst = journalLines();
    log("in the fault");
    const bool seen = isDelivered("in the fault");
    // From here on no client takes the daemon's time.
    const double before = processorSeconds(process);
    const Clock::time_point alone = Clock::now();
    std::this_thread::sleep_until(start + settling + watched);
    const std::chrono::duration<double> rest = Clock::now() - alone;
    const double share = 100 * (processorSeconds(process) - before) / rest.count();
    const double lines = (journalLines() - burst) / watched.count();
    chip.clearFaults();
    chip.refuseOpens(0);
    log("after the fault");
    isDelivered("after the fault");
    client({"-f"});
    const bool stored = readFile(qwk::logFilePath).find("after the fault") != std::string::npos;
    row({state, number(burst), number(lines, 2), number(share, 2) + " %", seen ? "yes" : "no",
         stored ? "yes" : "no"});
}

} // namespace

void measureFaults() {
    section(
        "A broken chip",
        "With a real journald without a rate limit. The fault begins with an entry. One more entry "
        "comes 60 s\nlater. The next 30 s are measured, their processor time only while no client "
        "asks. Then the chip\nanswers again.",
        {"", "own journal lines in the first 60 s", "then per second (target: at most 1)",
         "processor (target: at most 0.5 %)", "`-g` shows the entry at once",
         "the next entry is stored"});
    breakChip(
        "every transfer fails", [](framEmulator::FramChip& chip) { chip.failFrom(1); });
    breakChip("the bus does not open", [](framEmulator::FramChip& chip) { chip.refuseOpens(); });
}

} // namespace bench
