// Delivery to clients: how fast log files are sent, and how soon new lines.

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <list>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>

#include "process.h"
#include "report.h"
#include "server/server.h"
#include "support/childProcess.h"
#include "support/logFixture.h"

namespace bench {

namespace {

constexpr std::size_t pieceSize = 65536;
constexpr int fileSize = 5242880; // of a log file that has grown to its default size
constexpr int latencySamples = 1000;

// A client's connection.
struct Connection {
    Connection() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            throw std::runtime_error("no sockets");
        daemon = qwk::FileDescriptor(ends[0]);
        client = qwk::FileDescriptor(ends[1]);
    }
    void setNonBlocking() { fcntl(daemon.get(), F_SETFL, O_NONBLOCK); }
    qwk::FileDescriptor daemon;
    qwk::FileDescriptor client;
};

// The oldest lines are in the file with the highest index.
void writeLogFiles(int total) {
    std::uint32_t id = 1;
    for (int index = (total - 1) / fileSize; index >= 0; --index) {
        const int size = std::min(total, fileSize);
        id += writeLines(testSupport::logFile(index), id, static_cast<std::uint64_t>(size));
        total -= size;
    }
}

struct Transfer {
    double time; // from the start until a reader has all bytes
    double cpu;  // the processor time of both
    std::size_t bytes;
};

Transfer transfer(const std::function<void(Connection&)>& send) {
    const ProcessorTime before = processorTime(RUSAGE_SELF);
    const Clock::time_point start = Clock::now();
    Connection connection;
    std::size_t received = 0;
    std::thread reader([&] {
        std::vector<char> buffer(pieceSize);
        ssize_t got = 0;
        while ((got = recv(connection.client.get(), buffer.data(), pieceSize, 0)) > 0)
            received += static_cast<std::size_t>(got);
    });
    send(connection);
    shutdown(connection.daemon.get(), SHUT_WR);
    reader.join();
    return {microsecondsSince(start), (processorTime(RUSAGE_SELF) - before).total(), received};
}

void copyPlainly(Connection& connection, int total) {
    std::vector<char> buffer(pieceSize);
    for (int index = (total - 1) / fileSize; index >= 0; --index) {
        const qwk::FileDescriptor file = qwk::openForReading(testSupport::logFile(index).c_str());
        ssize_t got = 0;
        while ((got = qwk::readSome(file.get(), buffer.data(), pieceSize)) > 0)
            if (send(connection.daemon.get(), buffer.data(), static_cast<std::size_t>(got), 0) !=
                got)
                throw std::runtime_error("the socket takes no more");
    }
}

// The two take turns, so that other work of the machine affects both alike.
Comparison::Body inTurns(qwk::Logger& logger, int total) {
    return [&logger, total](benchmark::State& state) {
        std::vector<double> copyTimes;
        std::vector<double> deliveryTimes;
        double copyCpu = 0;
        double deliveryCpu = 0;
        for (auto _ : state) {
            const Transfer copy =
                transfer([&](Connection& connection) { copyPlainly(connection, total); });
            const Transfer delivery = transfer([&](Connection& connection) {
                connection.setNonBlocking();
                logger.streamLogs(total, false, connection.daemon.get());
            });
            if (copy.bytes != delivery.bytes)
                throw std::runtime_error("the delivery was not complete");
            copyTimes.push_back(copy.time);
            deliveryTimes.push_back(delivery.time);
            copyCpu += copy.cpu;
            deliveryCpu += delivery.cpu;
        }
        state.counters["copy"] = percentile(copyTimes, 50);
        state.counters["delivery"] = percentile(deliveryTimes, 50);
        state.counters["ratio"] = state.counters["copy"] / state.counters["delivery"];
        state.counters["cpu"] = deliveryCpu / copyCpu;
    };
}

void measureFirstDelivery(qwk::Logger& logger) {
    section("First delivery",
            "`-g` asks for all bytes of the log files, and the reader takes 64 KiB at a time. A "
            "plain loop copies\nthe same files in pieces of 64 KiB, in turn. The processor time "
            "is that of both ends.",
            {"", "plain loop", "delivery", "ratio of the rates", "target",
             "ratio of the processor times"});
    for (const int mebibytes : {1, 64}) {
        const int total = mebibytes << 20;
        writeLogFiles(total);
        Comparison comparison;
        comparison.add("delivery", 256 / mebibytes, inTurns(logger, total));
        comparison.run();
        const auto rate = [&](const char* name) {
            return number(mebibytes * 1e6 / comparison.counter("delivery", name)) + " MiB/s";
        };
        const double ratio = comparison.counter("delivery", "ratio");
        row({std::to_string(mebibytes) + " MiB", rate("copy"), rate("delivery"), number(ratio, 2),
             std::string("at least 0.90: ") + (ratio >= 0.9 ? "met" : "missed"),
             number(comparison.counter("delivery", "cpu"), 2)});
    }
}

// Adds entries as the FRAM cache does, which flushes when some tens of them fill the chip.
class EntrySource {
public:
    explicit EntrySource(qwk::Logger& logger) : logger_(logger) {}
    /// Returns the time when the entry was in the recent-entry buffer.
    Clock::time_point add() {
        const std::lock_guard<qwk::LogSink> held(logger_);
        if (next_ - oldest_ == entriesPerChip) {
            logger_.clearCache();
            for (; oldest_ != next_; ++oldest_)
                logger_.sink(oldest_, 6, 0, message_);
        }
        logger_.addToCache(next_++, 6, 0, message_);
        return Clock::now();
    }

private:
    static constexpr std::uint32_t entriesPerChip = 70;
    qwk::Logger& logger_;
    const std::string message_ = std::string(100, 'm');
    std::uint32_t oldest_ = 1;
    std::uint32_t next_ = 1;
};

struct Listener {
    explicit Listener(qwk::Logger& logger) {
        connection.setNonBlocking();
        thread = std::thread(
            [&logger, this] { logger.streamLogs(1000, true, connection.daemon.get()); });
        readThrough(connection.client.get(), '\0'); // it listens from here on
    }
    ~Listener() {
        shutdown(connection.client.get(), SHUT_RDWR);
        thread.join();
    }
    Connection connection;
    std::thread thread;
};

void measureListeners(qwk::Logger& logger, EntrySource& source) {
    section("One entry to live listeners",
            "From the recent-entry buffer to the last listener's socket.",
            {"listeners", "time", "time per listener", "compared with one"});
    source.add();
    double one = 0;
    for (const int count : {1, 10, 100}) {
        std::list<Listener> listeners;
        for (int i = 0; i < count; ++i)
            listeners.emplace_back(logger);
        Comparison comparison;
        comparison.addTimed("listeners", 200, [&](benchmark::State& state) {
            for (auto _ : state) {
                const Clock::time_point start = source.add();
                for (const Listener& listener : listeners)
                    readThrough(listener.connection.client.get(), '\0', 4096);
                state.SetIterationTime(microsecondsSince(start) / 1e6);
            }
        });
        comparison.run();
        const double time = comparison.time("listeners");
        one = one > 0 ? one : time;
        row({std::to_string(count), number(time, 1) + " us", number(time / count, 1) + " us",
             number(time / count / one, 2)});
        for (const Listener& listener : listeners)
            shutdown(listener.connection.client.get(), SHUT_RDWR);
        source.add(); // wakes the streams, whose clients have left
    }
}

void measureLatency(qwk::Logger& logger, EntrySource& source) {
    const qwk::Server server(&logger);
    const PipedProcess client(testSupport::buildPath("quillwick"), {"-l", "-g", "1000"});
    readThrough(client.output(), '\n'); // the older lines
    std::vector<double> times;
    for (int i = 0; i < latencySamples; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2)); // until all is idle again
        const Clock::time_point start = source.add();
        readThrough(client.output(), '\n');
        times.push_back(microsecondsSince(start));
    }
    section("Live latency",
            "From the recent-entry buffer to the standard output of a client process that follows "
            "the log; 1,000 entries.",
            {"median", "99th percentile"});
    row({number(percentile(times, 50)) + " us", number(percentile(times, 99)) + " us"});
}

} // namespace

void measureDelivery() {
    const testSupport::EmptyLog log;
    {
        qwk::Logger logger;
        measureFirstDelivery(logger);
    }
    const testSupport::EmptyLog emptyAgain;
    qwk::Logger logger;
    EntrySource source(logger);
    measureListeners(logger, source);
    measureLatency(logger, source);
}

} // namespace bench
