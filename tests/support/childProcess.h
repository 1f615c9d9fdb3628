#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "support/fileDescriptor.h"

namespace testSupport {

using Descriptor = qwk::FileDescriptor;

// A program running as a child; killed and reaped at the latest by the destructor. Not for use by
// several threads at once.
class ChildProcess {
public:
    // The path is not searched for; args do not contain the program's name; input is what the child
    // reads from its standard input. Throws std::system_error if the program cannot be started.
    ChildProcess(const std::string& path, const std::vector<std::string>& args,
                 const std::string& input = {});
    ~ChildProcess();

    // The number remains after the end; it is free for other processes then.
    pid_t pid() const { return pid_; }
    // Without effect once the end was seen by wait().
    void kill(int signal);
    // The exit status, or the negated number of the signal that ended the child; nothing if it
    // still runs at the limit. May be repeated.
    std::optional<int> wait(std::chrono::milliseconds limit);

    // All that the child has written so far to standard output and standard error.
    std::string output() const;
    bool waitForOutput(std::string_view text, std::chrono::milliseconds limit) const;

private:
    Descriptor output_;
    pid_t pid_ = -1;
    std::optional<int> ending_;
};

struct RunResult {
    int status; // as from ChildProcess::wait()
    std::string output;
};

// Runs a program to its end. Throws std::runtime_error if that takes longer than a minute.
RunResult run(const std::string& path, const std::vector<std::string>& args,
              const std::string& input = {});

// Where the build has put one of its products.
std::string buildPath(const std::string& name);

} // namespace testSupport
