// From the sender of a message to the chip, with wake-ups and without, compared with journalctl -f.

#include <algorithm>
#include <atomic>
#include <ctime>
#include <fcntl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "eeprom/framLayout.h"
#include "process.h"
#include "report.h"
#include "support/daemon.h"
#include "wire.h"

namespace bench {

namespace {

using namespace testSupport;

constexpr int rounds = 5;
constexpr int singleEntries = 30; // in a round
constexpr int kernelEntries = 10;
constexpr int burstSize = 1000;
constexpr int bursts = 5;
constexpr double busFrequency = 400000;
constexpr const char* kernelLog = "/host/dev/kmsg"; // the machine's, seen from the sandbox
constexpr const char* kernelLogOfSandbox = "/dev/kmsg";

using Milliseconds = std::vector<double>;

double processorTimeOf(pid_t process) {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0)
        throw std::runtime_error("the daemon's processor time is unknown");
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

// journalctl -f, and when it printed each entry.
class Follower {
public:
    Follower() : reader_(&Follower::read, this) {}
    ~Follower() {
        process_.reset(); // the end of its output
        reader_.join();
    }
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    int count() const { return count_; }
    /// When the newest was printed.
    Clock::time_point newest() const { return newest_; }

private:
    void read() {
        char piece[65536];
        for (ssize_t got; (got = qwk::readSome(output_.get(), piece, sizeof piece)) > 0;) {
            newest_ = Clock::now();
            count_ += static_cast<int>(std::count(piece, piece + got, '\n'));
        }
    }

    std::unique_ptr<PipedProcess> process_ = std::make_unique<PipedProcess>(
        "/bin/journalctl", std::vector<std::string>{"-f", "-n", "0", "-o", "cat", "-t", "bench"});
    const qwk::FileDescriptor output_{dup(process_->output())};
    std::atomic<int> count_{0};
    std::atomic<Clock::time_point> newest_{Clock::time_point()};
    std::thread reader_;
};

// Results for messages that are sent one by one, each when the one before has arrived.
struct Singles {
    Milliseconds chip;
    Milliseconds journalctl;
    std::vector<double> processorTime; // of the daemon in microseconds, for each message
};

struct Burst {
    double inChip = 0; // milliseconds until the last one was
    double onWire = 0; // milliseconds that its transfers take
    double processorTime = 0;
};

// One daemon and its board; the messages come from a sender of one kind.
class Trial {
public:
    Trial(bool isKernel, bool hasWakeUps) : journald_(makeJournald(isKernel)), isKernel_(isKernel) {
        Descriptor wakeUps;
        if (hasWakeUps)
            wakeUps = isKernel ? Descriptor(open(kernelLog, O_RDONLY | O_NONBLOCK | O_CLOEXEC))
                               : makeForwardingSocket();
        daemon_ = hasWakeUps ? startWithWakeUps(wakeUps) : std::make_unique<Daemon>();
        qwk::FileDescriptor connected(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address{AF_UNIX, "/dev/log"};
        if (connect(connected.get(), qwk::asSocketAddress(address), sizeof address) != 0)
            throw std::runtime_error("nobody listens at /dev/log");
        toLog_ = std::move(connected);
        // Both readers have begun when both have seen the same message.
        const std::uint32_t before = storedEntries();
        if (!eventually(60s, [&] {
                send();
                std::this_thread::sleep_for(700ms);
                return storedEntries() > before && follower_.count() > 0;
            }))
            throw std::runtime_error("the message does not arrive");
        std::this_thread::sleep_for(1s);
    }

    void addSingles(int count, Singles& all) {
        double before = processorTimeOf(daemon_->pid());
        for (int i = 0; i < count; ++i) {
            // journald's timer is in any phase.
            std::this_thread::sleep_for(std::chrono::milliseconds(20 + random_() % 300));
            const int printed = follower_.count() + 1;
            const std::uint32_t stored = storedEntries() + 1;
            chip_.clearRecord();
            const Clock::time_point start = send();
            await([&] { return storedEntries() >= stored && follower_.count() >= printed; });
            all.chip.push_back(since(start, lastRecordWritten()));
            all.journalctl.push_back(since(start, follower_.newest()));
            // journald's notice wakes the daemon when it wakes journalctl.
            std::this_thread::sleep_for(20ms);
            const double after = processorTimeOf(daemon_->pid());
            all.processorTime.push_back(after - std::exchange(before, after));
        }
    }

    Burst burst() {
        std::this_thread::sleep_for(1s);
        const std::uint32_t stored = storedEntries() + burstSize;
        chip_.clearRecord();
        const double before = processorTimeOf(daemon_->pid());
        const Clock::time_point start = send();
        for (int i = 1; i < burstSize; ++i)
            send();
        await([&] { return storedEntries() >= stored; });
        const double inChip = since(start, lastRecordWritten());
        std::this_thread::sleep_for(1s); // until no more looks come
        return {inChip, Wire(chip_.record()).microseconds(busFrequency) / 1000,
                (processorTimeOf(daemon_->pid()) - before) / burstSize};
    }

private:
    static std::unique_ptr<Journald> makeJournald(bool readsKernelLog) {
        std::filesystem::remove_all("/run/log/journal");
        std::filesystem::create_directory("/run/log/journal");
        std::filesystem::remove("/run/systemd/journal/syslog");
        std::error_code ignored;
        if (readsKernelLog)
            std::filesystem::create_symlink(kernelLog, kernelLogOfSandbox, ignored);
        auto journald = std::make_unique<Journald>(readsKernelLog);
        std::filesystem::remove(kernelLogOfSandbox);
        return journald;
    }
    static double since(Clock::time_point start, Clock::time_point end) {
        return std::chrono::duration<double, std::milli>(end - start).count();
    }
    template<typename Condition>
    static void await(Condition condition) {
        if (!eventually(60s, condition))
            throw std::runtime_error("an entry does not arrive");
    }

    // Returns the time just before.
    Clock::time_point send() {
        const std::string text = "<4>bench: message " + std::to_string(++sent_);
        // The kernel limits the rate of each opener.
        const Descriptor opened(isKernel_ ? open(kernelLog, O_WRONLY | O_CLOEXEC) : -1);
        const Clock::time_point now = Clock::now();
        if (write(isKernel_ ? opened.get() : toLog_.get(), text.data(), text.size()) < 0)
            throw std::runtime_error("the message cannot be sent");
        return now;
    }
    std::uint32_t storedEntries() const {
        return qwk::framLayout::decodeHeader(chip_.image().data()).nextId;
    }
    Clock::time_point lastRecordWritten() const {
        Clock::time_point end;
        for (const framEmulator::Transfer& transfer : chip_.record())
            if (transfer.kind == framEmulator::TransferKind::write && transfer.requested > 2 &&
                transfer.address >= qwk::framLayout::entryAreaStart)
                end = transfer.end;
        return end;
    }

    framEmulator::FramChip chip_;
    framEmulator::FramDevice device_{qwk::eepromDevicePath, chip_};
    std::unique_ptr<Journald> journald_;
    const bool isKernel_;
    std::unique_ptr<Daemon> daemon_;
    Follower follower_;
    qwk::FileDescriptor toLog_;
    Random random_;
    int sent_ = 0;
};

Cells percentiles(const std::string& name, const Milliseconds& times) {
    Cells cells{name};
    for (const double percent : {50.0, 90.0, 99.0, 100.0})
        cells.push_back(number(percentile(times, percent), 1) + " ms");
    return cells;
}

void compareSingles(bool isKernel, int count) {
    // In turn: the machine's speed changes over the minutes.
    Singles with, without;
    for (int i = 0; i < rounds; ++i) {
        Trial(isKernel, true).addSingles(count, with);
        Trial(isKernel, false).addSingles(count, without);
    }
    const auto add = [](const std::string& name, const Milliseconds& times,
                        const std::string& processorTime, const std::string& target) {
        Cells cells = percentiles(name, times);
        cells.push_back(processorTime);
        cells.push_back(target);
        row(cells);
    };
    const double time = percentile(with.processorTime, 50);
    const double timeWithout = percentile(without.processorTime, 50);
    const double ratio = time / timeWithout;
    const double median = percentile(with.chip, 50);
    const double late = percentile(with.chip, 99);
    const double beside = percentile(without.chip, 50) / percentile(without.journalctl, 50);
    add("with wake-ups", with.chip,
        number(time, 0) + " us, ratio " + number(ratio, 2) + ", " + atMost(ratio, 1.15),
        isKernel ? ""
                 : "median " + atMost(median, 3, 0) + "; 99th percentile " + atMost(late, 20, 0));
    add("`journalctl -f` at the same time", with.journalctl, "", "");
    add("without", without.chip, number(timeWithout, 0) + " us",
        "compared with `journalctl -f` " + number(beside, 2) + ", " + atMost(beside, 1.05));
    add("`journalctl -f` at the same time", without.journalctl, "", "");
}

struct Bursts {
    void add(const Burst& burst) {
        inChip.push_back(burst.inChip);
        onWire.push_back(burst.onWire);
        processorTime.push_back(burst.processorTime);
    }
    Burst median() const {
        return {percentile(inChip, 50), percentile(onWire, 50), percentile(processorTime, 50)};
    }

    std::vector<double> inChip, onWire, processorTime;
};

void compareBursts() {
    Bursts burstsWith, burstsWithout;
    for (int i = 0; i < bursts; ++i) {
        burstsWith.add(Trial(false, true).burst());
        burstsWithout.add(Trial(false, false).burst());
    }
    const Burst with = burstsWith.median();
    const Burst without = burstsWithout.median();
    const auto add = [](const std::string& name, const Burst& burst, const std::string& target) {
        row({name, number(burst.inChip, 0) + " ms", number(burst.onWire, 0) + " ms",
             number(burst.processorTime, 1) + " us", target});
    };
    const double ratio = with.processorTime / without.processorTime;
    add("with wake-ups", with, "processor time " + number(ratio, 2) + ", " + atMost(ratio, 1.15));
    add("without", without, "");
}

} // namespace

void measureLatency() {
    std::filesystem::remove(qwk::configurationPath);
    const Cells head{"",
                     "median",
                     "90th percentile",
                     "99th percentile",
                     "worst",
                     "processor time per entry",
                     "target"};
    section("From the sender to the chip",
            "From the arrival of a message at `/dev/log` to the end of its record's transfer to a "
            "stand-in chip that\ntakes no time on a wire, or to the output of `journalctl -f`. One "
            "message at a time, " +
                std::to_string(rounds * singleEntries) +
                " of them at random times.\nThe processor time is the median of the daemon's "
                "for one message.",
            head);
    compareSingles(false, singleEntries);
    section("From the kernel to the chip",
            "The same for messages written to `/dev/kmsg`, with a descriptor of it for wake-ups; " +
                std::to_string(rounds * kernelEntries) + " of them.",
            head);
    if (Descriptor(open(kernelLog, O_RDWR | O_CLOEXEC)).isOpen())
        compareSingles(true, kernelEntries);
    else
        row({"`/dev/kmsg` cannot be written here", "", "", "", "", "", ""});
    section("A burst of 1,000 messages",
            "Until the end of the last record's transfer, and the time that all transfers take on "
            "a bus of 400 kHz.\nMedians of " +
                std::to_string(bursts) + " bursts.",
            {"", "last record", "on the wire", "processor time per entry", "target"});
    compareBursts();
}

} // namespace bench
