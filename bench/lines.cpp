// Finding lines by their sequence number, in log files up to the largest possible one.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <stdexcept>

#include "process.h"
#include "report.h"
#include "support/logFixture.h"
#include "support/paths.h"

namespace bench {

namespace {

const std::string path = qwk::logFolderPath + std::string("/searched");
constexpr std::uint32_t firstId = 0x1000;
constexpr int searches = 200;

double readsSoFar() {
    std::ifstream counters("/proc/self/io");
    for (std::string name, value; counters >> name >> value;)
        if (name == "syscr:")
            return std::stod(value);
    return 0;
}

} // namespace

std::uint32_t writeLines(const std::string& file, std::uint32_t first, std::uint64_t size) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    Random random;
    const std::string head = " 2024-01-31 13:45:07.123 board sensor[412]: ";
    const std::string filler(192, 'x');
    std::uint32_t id = first;
    for (std::uint64_t left = size; left > 0; ++id) {
        // The last line takes the rest of the file.
        const std::uint64_t length = left < 384 ? left : 64 + random() % 128;
        char tag[16];
        const int tagLength = std::snprintf(tag, sizeof tag, "[%08x]", id);
        const auto text = static_cast<std::streamsize>(length - 1 - head.size()) - tagLength;
        out << tag << head;
        for (std::streamsize done = 0; done < text; done += 192)
            out.write(filler.data(), std::min<std::streamsize>(text - done, 192));
        out << '\n';
        left -= length;
    }
    return id - first;
}

void measureLines() {
    const testSupport::EmptyLog log;
    qwk::Logger logger;
    section("Finding a line by its number",
            "200 random lines of a log file whose lines have 64 to 191 bytes.",
            {"size of the file", "lines", "reads, mean", "reads, worst", "time, median",
             "time, worst"});
    constexpr std::uint64_t kibi = 1024;
    for (const std::uint64_t kibibytes : {kibi / 2, 5 * kibi, 2 * kibi * kibi}) {
        const std::uint32_t count = writeLines(path, firstId, kibibytes * kibi);
        const double counting = -readsSoFar() + readsSoFar();
        Random random(count);
        std::vector<double> times;
        std::vector<double> reads;
        for (int i = 0; i < searches; ++i) {
            std::uint32_t offset = 0;
            const double before = readsSoFar();
            const Clock::time_point start = Clock::now();
            if (logger.findId(path, firstId + random() % count, offset) != 0)
                throw std::runtime_error("a line was not found");
            times.push_back(microsecondsSince(start));
            reads.push_back(readsSoFar() - before - counting);
        }
        row({std::to_string(kibibytes) + " KiB", std::to_string(count),
             number(std::accumulate(reads.begin(), reads.end(), 0.0) / searches, 1),
             number(percentile(reads, 100)), number(percentile(times, 50), 1) + " us",
             number(percentile(times, 100), 1) + " us"});
    }
    std::filesystem::remove(path);
}

} // namespace bench
