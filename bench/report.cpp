#include "report.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <utility>

namespace bench {

namespace {

constexpr int repetitions = 9;

// Shows the progress, and keeps the medians.
class Collector : public benchmark::ConsoleReporter {
public:
    explicit Collector(std::map<std::string, std::map<std::string, double>>& results)
        : results_(results) {
        SetOutputStream(&std::cerr);
        SetErrorStream(&std::cerr);
    }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.aggregate_name == "median") {
                std::map<std::string, double>& values = results_[run.run_name.function_name];
                values[""] = run.GetAdjustedRealTime();
                for (const auto& [name, counter] : run.counters)
                    values[name] = counter.value;
            }
        ConsoleReporter::ReportRuns(runs);
    }

private:
    std::map<std::string, std::map<std::string, double>>& results_;
};

benchmark::internal::Benchmark* enlist(const std::string& name, const Comparison::Body& body) {
    return benchmark::RegisterBenchmark(name.c_str(), body)
        ->Unit(benchmark::kMicrosecond)
        ->Repetitions(repetitions)
        ->ReportAggregatesOnly();
}

void printLine(const Cells& cells) {
    for (const std::string& cell : cells)
        std::cout << "| " << cell << ' ';
    std::cout << "|\n" << std::flush;
}

} // namespace

void Comparison::add(const std::string& name, benchmark::IterationCount iterations,
                     const Body& body) {
    enlist(name, body)->Iterations(iterations)->UseRealTime();
}

void Comparison::addTimed(const std::string& name, benchmark::IterationCount iterations,
                          const Body& body) {
    enlist(name, body)->Iterations(iterations)->UseManualTime();
}

void Comparison::run() {
    Collector collector(results_);
    benchmark::RunSpecifiedBenchmarks(&collector, ".*");
}

void section(const std::string& title, const std::string& text, const Cells& head) {
    std::cout << "\n## " << title << "\n\n" << text << "\n\n";
    printLine(head);
    printLine(Cells(head.size(), "---"));
}

void row(const Cells& cells) {
    printLine(cells);
}

std::string number(double value, int digits) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

std::string atMost(double value, double limit, int digits) {
    return "at most " + number(limit, digits) + (value <= limit ? ": met" : ": missed");
}

double percentile(std::vector<double> values, double percent) {
    const auto last = static_cast<double>(values.size() - 1);
    const auto nth = values.begin() + static_cast<std::ptrdiff_t>(last * percent / 100 + 0.5);
    std::nth_element(values.begin(), nth, values.end());
    return *nth;
}

} // namespace bench
