// The FRAM cache: processor time compared with the time of the same transfers on the bus.

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <memory>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "eeprom/eeprom.h"
#include "framEmulator/framDevice.h"
#include "process.h"
#include "report.h"
#include "support/logFixture.h"
#include "support/paths.h"
#include "wire.h"

namespace bench {

namespace {

constexpr std::uint64_t entryTime = 1700000000123456;
constexpr int appendsPerRun = 2000;
constexpr int recordsPerFlush = 543; // as many as fit

class Board {
public:
    Board() {
        use([](qwk::Eeprom& eeprom) { eeprom.append(3, entryTime, "first"); });
        use([](qwk::Eeprom& eeprom) { eeprom.flush(); });
        empty = chip.image();
        for (int i = 0; i < recordsPerFlush; ++i)
            use([](qwk::Eeprom& eeprom) { eeprom.append(3, entryTime, ""); });
        full = chip.image();
        append = recorded(
            empty, [this] { appendOne(); });
        flush = recorded(full, [this] { flushAll(); });
        chip.setRecording(false);
    }
    template<typename Operation>
    void use(Operation operation) {
        const std::unique_ptr<qwk::Eeprom> eeprom(qwk::Eeprom::open(&logger, 0));
        operation(*eeprom);
    }
    void appendOne() {
        use([this](qwk::Eeprom& eeprom) { eeprom.append(3, entryTime, message); });
    }
    void flushAll() {
        use([](qwk::Eeprom& eeprom) { eeprom.flush(); });
    }
    // Only the system calls of an append.
    void transferOnly() {
        char bytes[512] = {};
        const qwk::FileDescriptor bus(open(qwk::eepromDevicePath, O_RDWR | O_CLOEXEC));
        ioctl(bus.get(), I2C_SLAVE, long{qwk::eepromSlaveAddress});
        for (const framEmulator::Transfer& transfer : append)
            benchmark::DoNotOptimize(transfer.kind == framEmulator::TransferKind::read
                                         ? read(bus.get(), bytes, transfer.requested)
                                         : write(bus.get(), bytes, transfer.requested));
    }
    void reset(const framEmulator::Image& image) {
        chip.setImage(image);
        const std::lock_guard<qwk::LogSink> held(logger);
        logger.clearCache();
    }

    testSupport::EmptyLog log;
    qwk::Logger logger;
    framEmulator::FramChip chip;
    framEmulator::FramDevice device{qwk::eepromDevicePath, chip};
    const std::string message = std::string(100, 'm');
    framEmulator::Image empty{};
    framEmulator::Image full{};
    std::vector<framEmulator::Transfer> append;
    std::vector<framEmulator::Transfer> flush;

private:
    template<typename Operation>
    std::vector<framEmulator::Transfer> recorded(const framEmulator::Image& image,
                                                 Operation operation) {
        reset(image);
        chip.clearRecord();
        operation();
        return chip.record();
    }
};

// The processor time of this thread only: the chip has a thread of its own.
Comparison::Body processorTimeOf(Board& board, const framEmulator::Image& image, int resetEvery,
                                 const std::function<void()>& work) {
    return [&board, &image, resetEvery, work](benchmark::State& state) {
        const ProcessorTime before = processorTime(RUSAGE_THREAD);
        int done = 0;
        for (auto _ : state) {
            if (done++ % resetEvery == 0)
                board.reset(image);
            work();
        }
        const ProcessorTime spent = processorTime(RUSAGE_THREAD) - before;
        state.counters["user"] = spent.user / done;
        state.counters["system"] = spent.system / done;
        state.counters["cpu"] = spent.total() / done;
    };
}

} // namespace

void measureChip() {
    Board board;
    board.reset(board.empty);
    Comparison comparison;
    constexpr int appendsPerChip = 50;
    comparison.add("append", appendsPerRun,
                   processorTimeOf(
                       board, board.empty, appendsPerChip, [&] { board.appendOne(); }));
    comparison.add("transfers alone", appendsPerRun,
                   processorTimeOf(
                       board, board.empty, appendsPerChip, [&] { board.transferOnly(); }));
    comparison.add("flush", 5,
                   processorTimeOf(
                       board, board.full, 1, [&] { board.flushAll(); }));
    comparison.add("line", 100000, [&](benchmark::State& state) {
        for (auto _ : state)
            benchmark::DoNotOptimize(board.logger.formatLine(42, 3, entryTime, board.message));
    });
    comparison.run();

    section("The FRAM cache",
            "Processor time of the calling thread, compared with the time that the same transfers "
            "take on a bus.\nAnother thread serves the stand-in chip. Composing a line takes " +
                number(comparison.time("line") * 1000) + " ns.",
            {"", "transfers", "bytes on the wire", "processor time (user + system)",
             "share of 100 kHz", "400 kHz", "1 MHz", "target at 400 kHz"});
    const auto add = [&](const char* what, const char* name, const Wire& wire, double limit) {
        const double spent = comparison.counter(name, "cpu");
        const auto share = [&](double hertz) {
            return number(100 * spent / wire.microseconds(hertz), 2) + " % of " +
                   number(wire.microseconds(hertz) / 1000, 1) + " ms";
        };
        row({what, std::to_string(wire.count), std::to_string(wire.bytes),
             number(spent, 1) + " us (" + number(comparison.counter(name, "user"), 1) + " + " +
                 number(comparison.counter(name, "system"), 1) + ")",
             share(100000), share(400000), share(1000000),
             limit > 0 ? atMost(100 * spent / wire.microseconds(400000), limit, 0) : ""});
    };
    add("append of 100 bytes", "append", Wire(board.append), 2);
    add("its system calls alone", "transfers alone", Wire(board.append), 0);
    add("flush of 543 records", "flush", Wire(board.flush), 0);
}

} // namespace bench
