#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

#include "support/fileDescriptor.h"

namespace bench {

using Clock = std::chrono::steady_clock;

double microsecondsSince(Clock::time_point start);

/// A program with a pipe for its standard output; the destructor kills and reaps it.
class PipedProcess {
public:
    PipedProcess(const std::string& path, std::vector<std::string> arguments);
    ~PipedProcess();
    PipedProcess(const PipedProcess&) = delete;
    PipedProcess& operator=(const PipedProcess&) = delete;

    int output() const { return output_.get(); }

private:
    qwk::FileDescriptor output_;
    pid_t pid_ = -1;
};

/// Reads, in pieces of at most `piece` bytes, until a piece ends with `last`. Throws at the end of
/// the input.
void readThrough(int descriptor, char last, std::size_t piece = 65536);

/// Processor time in microseconds.
struct ProcessorTime {
    double user = 0;
    double system = 0;
    double total() const { return user + system; }
};

/// Of the calling thread (RUSAGE_THREAD) or of all ended children (RUSAGE_CHILDREN).
ProcessorTime processorTime(int whose);
ProcessorTime operator-(const ProcessorTime& left, const ProcessorTime& right);

} // namespace bench
