#include "process.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace bench {

namespace {

double inMicroseconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
}

} // namespace

double microsecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

PipedProcess::PipedProcess(const std::string& path, std::vector<std::string> arguments) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    output_ = qwk::FileDescriptor(ends[0]);
    const qwk::FileDescriptor input(ends[1]);
    arguments.insert(arguments.begin(), path);
    std::vector<char*> pointers;
    for (std::string& argument : arguments)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.get(), STDOUT_FILENO);
    const int error = posix_spawn(&pid_, path.c_str(), &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), path);
}

PipedProcess::~PipedProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

void readThrough(int descriptor, char last, std::size_t piece) {
    std::vector<char> buffer(piece);
    ssize_t got = 0;
    do {
        got = qwk::readSome(descriptor, buffer.data(), piece);
        if (got <= 0)
            throw std::runtime_error("the output ended before what was waited for");
    } while (buffer[static_cast<std::size_t>(got) - 1] != last);
}

ProcessorTime processorTime(int whose) {
    rusage usage{};
    getrusage(whose, &usage);
    return {inMicroseconds(usage.ru_utime), inMicroseconds(usage.ru_stime)};
}

ProcessorTime operator-(const ProcessorTime& left, const ProcessorTime& right) {
    return {left.user - right.user, left.system - right.system};
}

} // namespace bench
