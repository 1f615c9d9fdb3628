#pragma once

#include <benchmark/benchmark.h>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace bench {

/// Benchmarks that run together, in random order and several times each, so that disturbances of
/// the machine affect all of them alike. Results are medians over the repetitions.
class Comparison {
public:
    using Body = std::function<void(benchmark::State&)>;
    Comparison() = default;
    Comparison(const Comparison&) = delete;
    Comparison& operator=(const Comparison&) = delete;
    ~Comparison() { benchmark::ClearRegisteredBenchmarks(); }

    void add(const std::string& name, benchmark::IterationCount iterations, const Body& body);
    /// The same for a body that sets each iteration's time itself.
    void addTimed(const std::string& name, benchmark::IterationCount iterations, const Body& body);
    void run();

    /// Microseconds per iteration.
    double time(const std::string& name) const { return results_.at(name).at(""); }
    double counter(const std::string& name, const std::string& counter) const {
        return results_.at(name).at(counter);
    }

private:
    std::map<std::string, std::map<std::string, double>> results_;
};

using Cells = std::vector<std::string>;

/// The document that all groups of benchmarks write, as Markdown on standard output.
void section(const std::string& title, const std::string& text, const Cells& head);
void row(const Cells& cells);

std::string number(double value, int digits = 0);
/// A value and its target: "at most 1.10: met".
std::string atMost(double value, double limit, int digits = 2);

double percentile(std::vector<double> values, double percent);

/// Begins the same everywhere, so that all runs measure the same.
using Random = std::linear_congruential_engine<std::uint32_t, 48271, 0, 0x7FFFFFFF>;

/// Writes a log file of `size` bytes with lines of 64 to 191 bytes, numbered from `first` on.
/// Returns how many there are.
std::uint32_t writeLines(const std::string& file, std::uint32_t first, std::uint64_t size);

// The groups. Each begins with an empty journal and an empty log folder.
void measureJournal();
void measureChip();
void measureLines();
void measureDelivery();
void measureDaemon();
void measureLatency();
void measureFaults();

} // namespace bench
