// Lines by their sequence number, in log files up to the largest there can be.

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "process.h"
#include "report.h"
#include "support/logFixture.h"

namespace bench {

namespace {

constexpr char path[] = "/var/logperm/searched";
constexpr std::uint32_t firstId = 0x1000;

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
        // The last line takes what is left of the file.
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
    section("Finding a line by its number", "Random lines of 64 to 191 bytes in one log file.",
            {"size of the file", "lines", "reads a search", "time", "time beside the smallest"});
    double smallest = 0;
    constexpr std::uint64_t kibi = 1024;
    for (const std::uint64_t kibibytes : {kibi / 2, 5 * kibi, 2 * kibi * kibi}) {
        const std::uint32_t count = writeLines(path, firstId, kibibytes * kibi);
        Random random(count);
        Comparison comparison;
        const int searches = kibibytes > kibi * kibi ? 5 : 400;
        comparison.add("findId", searches, [&](benchmark::State& state) {
            std::uint32_t offset = 0;
            const double counting = -readsSoFar() + readsSoFar();
            const double before = readsSoFar() + counting;
            for (auto _ : state)
                if (logger.findId(path, firstId + random() % count, offset) != 0)
                    throw std::runtime_error("a line was not found");
            state.counters["reads"] =
                (readsSoFar() - before) / static_cast<double>(state.iterations());
        });
        comparison.run();
        const double time = comparison.time("findId");
        smallest = smallest > 0 ? smallest : time;
        row({std::to_string(kibibytes) + " KiB", std::to_string(count),
             number(comparison.counter("findId", "reads"), 1), number(time, 1) + " us",
             number(time / smallest, 2)});
    }
    std::filesystem::remove(path);
}

} // namespace bench
